#pragma once
// What the console window shows, apart from the slot list: the texts and states of
// its controls (by control id), the status-bar panes and the title. Any thread may
// write; the window reads a snapshot when told that something changed.

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace quorvel::app {

// Control ids of the console.
enum ConsoleControl : int {
    IDC_START_STOP = 1019,
    IDC_SETTINGS = 1020,
    IDC_HELP = 1021,
    IDC_TOTAL = 1041,
    IDC_FAILURES = 1042,
    IDC_PASS_RATE = 1043,
    IDC_TOTAL_LABEL = 1046,
    IDC_FAILURE_LABEL = 1047,
    IDC_PASS_RATE_LABEL = 1048,
    IDC_OPERATION_AREA = 1049,
    IDC_PANEL = 1056,
    IDC_PATH_BANNER = 1108,
};

struct ControlState {
    std::string text;
    std::string toolTip;
    bool enabled = true;
    int iconIn = 0, iconOut = 0;
    std::string fontFace;  // empty: the window's own font
    int fontHeight = 0;    // pixels
    int fontWeight = 0;    // 0: the face's normal weight
};

struct ConsoleSnapshot {
    std::uint64_t version = 0;
    std::string title;
    std::map<int, ControlState> controls;
    std::array<std::string, 4> panes;
    std::string notice;           // a bench problem the operator must see; empty for none
    std::string backgroundImage;  // file path, empty for none
    bool benchView = false;       // the bench tiles instead of the slot list
    bool closeRequested = false;
    bool hidden = false;
};

class ConsoleView {
public:
    void SetTitle(const std::string& text);
    void SetText(int control, const std::string& text);
    void SetToolTip(int control, const std::string& text);
    void SetEnabled(int control, bool enabled);
    void SetIcons(int control, int in, int out);
    void SetFont(int control, const std::string& face, int height, int weight);
    void SetPane(int pane, const std::string& text);
    // A lasting notice beside the panes (a missing driver, a port without permission): the
    // clock rewrites its pane every second, so such problems never go there.
    void SetNotice(const std::string& text);
    void SetBackgroundImage(const std::string& path);
    void RequestClose(bool hide);
    void SetBenchView(bool on);

    std::string Text(int control) const;
    std::string Pane(int pane) const;
    std::string Notice() const;
    ConsoleSnapshot Snapshot() const;

    // Called after every change, on the changing thread, without the model's lock held;
    // must not change the model. Once SetObserver returns, the old observer never runs again.
    void SetObserver(std::function<void()> observer);

private:
    template <class F>
    void Change(F f);

    mutable std::mutex mutex_;
    ConsoleSnapshot state_;
    std::mutex observerMutex_;  // guards observer_ and its calls
    std::function<void()> observer_;
};

}  // namespace quorvel::app
