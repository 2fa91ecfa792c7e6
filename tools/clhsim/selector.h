// Message selectors: comparisons of properties, all of which must hold.
//
//     COLOUR = 'red' AND WEIGHT >= 2.5
#ifndef CLHSIM_SELECTOR_H
#define CLHSIM_SELECTOR_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace clhsim {

enum class Comparison : uint8_t { EQUAL, UNEQUAL, LESS, AT_MOST, GREATER, AT_LEAST };

struct Condition {
    std::string property = {};
    Comparison comparison = Comparison::EQUAL;
    bool is_text = false;
    std::string text = {};
    double number = 0;
};

using Selector = std::vector<Condition>;  // empty: every message

// False: it isn't one. A text of blanks is an empty selector.
bool parse_selector(std::string_view text, Selector &selector);
// A message is a field buffer that is in order.
bool selects(const Selector &selector, std::string_view message);

}  // namespace clhsim

#endif
