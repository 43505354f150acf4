#pragma once
#include <cstdint>
#include <string>

namespace quorvel::app {

// A slot's binding state. The codes are the ones the binding commands and logs have always
// used, so a state written as a number still reads back the same.
enum class BindState : std::int32_t {
    Idle = 0,
    BromBinded = 1,
    DaBinded = 2,
    PreloaderBinded = 3,
    AllBinded = 4,
    Busy = 999,
};

// "IDLE", "BROM_BINDED", ... ; a value outside the list gives the empty text.
const char* BindStateName(BindState state);

}  // namespace quorvel::app
