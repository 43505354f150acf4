#pragma once
// A modal window that only shows the progress of work done elsewhere (the package
// preparation window). The work closes it when it ends; the operator may close it earlier.
// The console runs it (ConsoleUi::RunPreparationDialog).

namespace quorvel::app {

class PreparationDialog {
public:
    virtual ~PreparationDialog() = default;
    // Starts the work; false when nothing was started (the window would wait for the operator).
    virtual bool Open() = 0;
    // The operator ended the window (Escape or Enter).
    virtual void Close() = 0;
    // Blocks until the window is closed, by the work or by Close.
    virtual void WaitClosed() = 0;
};

}  // namespace quorvel::app
