#pragma once
#include <cstdint>
#include <string>

namespace quorvel::app {

// A slot's binding state, stored as a signed 32-bit code.
enum BindState : std::int32_t {
    BIND_IDLE = 0,
    BIND_BROM_BINDED = 1,
    BIND_DA_BINDED = 2,
    BIND_PRELOADER_BINDED = 3,
    BIND_ALL_BINDED = 4,
    BIND_BUSY = 999,
};

// "IDLE", "BROM_BINDED", ... ; any other code gives the empty text.
const char* BindStateName(std::int32_t code);

}  // namespace quorvel::app
