#include "station/BindState.h"

namespace quorvel::app {

const char* BindStateName(std::int32_t code) {
    switch (code) {
        case BIND_IDLE: return "IDLE";
        case BIND_BROM_BINDED: return "BROM_BINDED";
        case BIND_DA_BINDED: return "DA_BINDED";
        case BIND_PRELOADER_BINDED: return "PRELOADER_BINDED";
        case BIND_ALL_BINDED: return "ALL_BINDED";
        case BIND_BUSY: return "BUSY";
        default: return "";
    }
}

}  // namespace quorvel::app
