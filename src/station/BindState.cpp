#include "station/BindState.h"

namespace quorvel::app {

const char* BindStateName(BindState state) {
    switch (state) {
        case BindState::Idle: return "IDLE";
        case BindState::BromBinded: return "BROM_BINDED";
        case BindState::DaBinded: return "DA_BINDED";
        case BindState::PreloaderBinded: return "PRELOADER_BINDED";
        case BindState::AllBinded: return "ALL_BINDED";
        case BindState::Busy: return "BUSY";
        default: return "";
    }
}

}  // namespace quorvel::app
