#include "station/ConsoleView.h"

namespace quorvel::app {

template <class F>
void ConsoleView::Change(F f) {
    {
        std::lock_guard g(mutex_);
        f(state_);
        ++state_.version;
    }
    // Under its own lock, so that once SetObserver returns no old observer still runs.
    std::lock_guard g(observerMutex_);
    if (observer_) observer_();
}

void ConsoleView::SetTitle(const std::string& text) {
    Change([&](ConsoleSnapshot& s) { s.title = text; });
}
void ConsoleView::SetText(int control, const std::string& text) {
    Change([&](ConsoleSnapshot& s) { s.controls[control].text = text; });
}
void ConsoleView::SetToolTip(int control, const std::string& text) {
    Change([&](ConsoleSnapshot& s) { s.controls[control].toolTip = text; });
}
void ConsoleView::SetEnabled(int control, bool enabled) {
    Change([&](ConsoleSnapshot& s) { s.controls[control].enabled = enabled; });
}
void ConsoleView::SetIcons(int control, int in, int out) {
    Change([&](ConsoleSnapshot& s) {
        s.controls[control].iconIn = in;
        s.controls[control].iconOut = out;
    });
}
void ConsoleView::SetFont(int control, const std::string& face, int height, int weight) {
    Change([&](ConsoleSnapshot& s) {
        auto& c = s.controls[control];
        c.fontFace = face;
        c.fontHeight = height;
        c.fontWeight = weight;
    });
}

void ConsoleView::SetPane(int pane, const std::string& text) {
    if (pane < 0 || pane >= 4) return;
    Change([&](ConsoleSnapshot& s) { s.panes[static_cast<std::size_t>(pane)] = text; });
}
void ConsoleView::SetNotice(const std::string& text) {
    Change([&](ConsoleSnapshot& s) { s.notice = text; });
}
void ConsoleView::SetBenchView(bool on) {
    Change([&](ConsoleSnapshot& s) { s.benchView = on; });
}

void ConsoleView::SetBackgroundImage(const std::string& path) {
    Change([&](ConsoleSnapshot& s) { s.backgroundImage = path; });
}
void ConsoleView::RequestClose(bool hide) {
    Change([&](ConsoleSnapshot& s) {
        s.closeRequested = true;
        s.hidden = s.hidden || hide;
    });
}

std::string ConsoleView::Text(int control) const {
    std::lock_guard g(mutex_);
    auto it = state_.controls.find(control);
    return it == state_.controls.end() ? std::string() : it->second.text;
}

std::string ConsoleView::Notice() const {
    std::lock_guard g(mutex_);
    return state_.notice;
}

std::string ConsoleView::Pane(int pane) const {
    std::lock_guard g(mutex_);
    return pane >= 0 && pane < 4 ? state_.panes[static_cast<std::size_t>(pane)] : std::string();
}

ConsoleSnapshot ConsoleView::Snapshot() const {
    std::lock_guard g(mutex_);
    return state_;
}

void ConsoleView::SetObserver(std::function<void()> observer) {
    std::lock_guard g(observerMutex_);
    observer_ = std::move(observer);
}

}  // namespace quorvel::app
