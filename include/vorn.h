/* The public interface of libvornthr, but for four headers whose short names could clash with those of other
 * libraries: vorn/acl.h, vorn/codeconv.h, vorn/compat.h and vorn/ffields.h. */
#ifndef VORN_H
#define VORN_H

#include "vorn/bindings.h"
#include "vorn/bridge.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/context.h"
#include "vorn/conversation.h"
#include "vorn/environment.h"
#include "vorn/errors.h"
#include "vorn/events.h"
#include "vorn/fields.h"
#include "vorn/flags.h"
#include "vorn/groups.h"
#include "vorn/keystore.h"
#include "vorn/kmq.h"
#include "vorn/log.h"
#include "vorn/query.h"
#include "vorn/queue.h"
#include "vorn/session.h"
#include "vorn/structs.h"
#include "vorn/tx.h"
#include "vorn/unsol.h"
#include "vorn/utility.h"

#endif
