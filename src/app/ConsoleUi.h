#pragma once
// Modal interactions with the operator. Callers on any thread block until the
// operator has answered, as a modal dialog would. The Qt window implements it;
// HeadlessConsoleUi serves tests and tools.

#include <mutex>
#include <string>
#include <vector>

namespace quorvel::app {

class ConsoleUi {
public:
    virtual ~ConsoleUi() = default;
    // A message box with an OK button.
    virtual void MessageBox(const std::string& text) = 0;
};

// Records every message box; answers nothing and never blocks.
class HeadlessConsoleUi : public ConsoleUi {
public:
    void MessageBox(const std::string& text) override;
    std::vector<std::string> Messages() const;
    void Clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::string> messages_;
};

}  // namespace quorvel::app
