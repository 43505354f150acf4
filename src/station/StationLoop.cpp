#include "station/StationLoop.h"

namespace quorvel::app {

platform::LResult StationLoop::Send(Message message) {
    return CallForResult(
        [this, message = std::move(message)] { return handler_ ? handler_->HandleMessage(message) : 0; });
}

void StationLoop::Post(Message message) {
    PostTask([this, message = std::move(message)] {
        if (handler_) handler_->HandleMessage(message);
    });
}

}  // namespace quorvel::app
