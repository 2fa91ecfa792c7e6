// What goes wrong on purpose: for each service, and for the exchanges named on the wire ("_tpstart",
// "_tpend", "_tx_commit", "_tx_rback", "_notify", an event's name), the faults that the control socket has
// set.
#ifndef CLHSIM_FAULTS_H
#define CLHSIM_FAULTS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace clhsim {

enum class FaultKind { DELAY, DROP, REFUSE, GIVE_BACK, TRUNCATE, RESULT };

struct Fault {
    int64_t value = 0;
    int64_t left = -1;  // how often it still strikes; -1: until it is cleared
};

// By service and kind; the service "*" stands for all that have no such fault of their own.
using FaultTable = std::map<std::pair<std::string, FaultKind>, Fault>;

void set_fault(FaultTable &faults, std::string_view service, FaultKind kind, Fault fault);
void clear_faults(FaultTable &faults, std::string_view service);  // "*" clears all
// The value of the fault that strikes now; counts it.
std::optional<int64_t> strike(FaultTable &faults, std::string_view service, FaultKind kind);

}  // namespace clhsim

#endif
