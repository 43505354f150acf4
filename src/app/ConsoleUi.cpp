#include "app/ConsoleUi.h"

namespace quorvel::app {

void HeadlessConsoleUi::MessageBox(const std::string& text) {
    std::lock_guard g(mutex_);
    messages_.push_back(text);
}

std::vector<std::string> HeadlessConsoleUi::Messages() const {
    std::lock_guard g(mutex_);
    return messages_;
}

void HeadlessConsoleUi::Clear() {
    std::lock_guard g(mutex_);
    messages_.clear();
}

}  // namespace quorvel::app
