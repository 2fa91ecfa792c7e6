// Where messages stand, and how they get there and away: what the message service's requests are made of.
#ifndef CLHSIM_KMQPLACES_H
#define CLHSIM_KMQPLACES_H

#include "kmq.h"
#include "server.h"

namespace clhsim {

// What a session's flags say.
constexpr int32_t SESSION_TRANSACTED = 0x80;
constexpr int32_t SESSION_XA = 0x800;

// What the flags of an object say.
constexpr int32_t OBJECT_READS = 0x02;
constexpr int32_t OBJECT_DURABLE = 0x40;  // when one is closed: the end of the subscription
constexpr int32_t OBJECT_TOPIC = 0x80;
constexpr int32_t OBJECT_BROWSES = 0x800;
constexpr int32_t OBJECT_BROWSES_HELD = 0x1000;  // with the former: what somebody else has got, too

// The flags of a message.
constexpr int32_t MESSAGE_PERSISTENT = 0x02;
constexpr int32_t MESSAGE_TRANSACTED = 0x40;
constexpr int32_t MESSAGE_REDELIVERED = 0x80;

constexpr const char *GET_NAME = "_kmqget";  // faults of deliveries are set for it

int64_t milliseconds_now();  // since 1970

// Identities go on where an earlier run has stopped, so that none is ever given twice. 0: the store can't be
// written.
uint64_t new_identity(Server &server);
// The identity's low word, and the word that has its high 16 bits and the priority; and back.
int32_t low_word(const Rank &rank);
int32_t high_word(const Rank &rank);
Rank rank_of(const Header &header);

Place *find_place(Server &server, const PlaceKey &key);                   // null: there is none
KeptPlace kept_place(const PlaceKey &key, const Place *place = nullptr);  // null: without its selector
// Where a message goes to: its queue, or the subscriptions to its topic that select it.
std::vector<PlaceKey> targets_of(Server &server, const PlaceKey &target, const std::string &data);

// The first ready message from there on that the selector takes. What is over is taken away on the way.
std::map<Rank, ServiceMessage>::iterator first_selected(Server &server, const PlaceKey &key, Place &place,
                                                        std::map<Rank, ServiceMessage>::iterator from,
                                                        const Selector &selector);
void expire_ready(Server &server, const PlaceKey &key, Place &place);  // all that is over

bool reads(const ServiceObject &object);  // a consumer or browser
// The client of a session; null if its connection is over.
Client *find_owner(Server &server, const ServiceSession &session);

// The message as an answer to the request for it.
Reply delivery(const ServiceSession &session, const Header &request, const ServiceMessage &message);
// Hands a message, which stands nowhere, to a consumer, for which it is held from now on.
void deliver(Server &server, Client &client, ServiceSession &session, int32_t id, const Header &request,
             ServiceMessage message);
void stop_waiting(Server &server, int32_t id, ServiceObject &object);

// Both steps of a commit. False: nothing has happened.
bool finish_work(Server &server, Work work);

}  // namespace clhsim

#endif
