// The shop behind the service ORDER: it reads an order, adds up its lines, and says whether it takes it. An
// order comes as a field buffer or as a struct; both end in the same sum.
#ifndef CLHSIM_ORDERS_H
#define CLHSIM_ORDERS_H

#include "services.h"

namespace clhsim {

Answer order_service(const Options &options, const Header &request, std::string_view data);

// The record of a struct buffer whose subtype the shop knows; 0 for a name that it doesn't know.
size_t struct_size(const Header &request);

}  // namespace clhsim

#endif
