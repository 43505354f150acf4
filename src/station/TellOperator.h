#pragma once
// Messages for the operator met below the console. Only the console shows them, one
// message box each: lower layers return them, or, where the work must wait until the
// operator has read one before it goes on, hand it to the TellOperator the console gave.

#include <functional>
#include <string>

namespace quorvel::app {

// Shows `text` and returns once the operator has read it. Called on the working thread.
using TellOperator = std::function<void(const std::string& text)>;

}  // namespace quorvel::app
