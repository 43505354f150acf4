#pragma once
// What the package preparation window does, without its window: it starts the work
// by package kind (the engine's checksum validation for MTK scatter packages, the
// extraction and configuration of a PAC package on a preparation thread), shows the
// progress that work sends (messages 6027 and 6029) and keeps PreparationResult.
//
// Threads: Open, Close and the view accessors on the station thread (the console waits
// in RunPreparationDialog meanwhile); messages arrive through Receiver() on the work's
// threads, each handled before the sender goes on; no lock is held while a handler waits
// for the operator. After the window has closed, later messages find no receiver and are
// dropped. Only the end notice (or the operator) closes the window; a PAC load that failed
// before extraction sends none, so the window waits for the operator (WaitClosed, without
// a screen, plays the operator once the work has ended). The destructor waits for the
// preparation thread, so the console never goes on while a PAC load still writes its
// parameters, and for any handler still running.

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "packages/BinPack.h"
#include "present/PreparationDialog.h"
#include "station/Messages.h"
#include "station/TellOperator.h"

namespace quorvel::app {
class Station;
}

namespace quorvel::packages {

struct PreparationView {
    std::string title;
    std::string status;   // the status line (control 1052)
    int barPosition = 0;  // 0..100
    std::string barText;  // as the bar prints it
    bool closed = false;
};

class PreparationWindowLogic final : public app::PreparationDialog {
public:
    // Starts the engine's checksum validation with `receiver` as the window to report to;
    // empty when the console has no engine holder.
    using StartVerify = std::function<void(std::shared_ptr<app::MessageWindow> receiver)>;

    // The work's messages for the operator go to `tell`, on the work's threads.
    PreparationWindowLogic(app::Station& station, app::TellOperator tell, StartVerify startVerify = {});
    ~PreparationWindowLogic() override;
    PreparationWindowLogic(const PreparationWindowLogic&) = delete;
    PreparationWindowLogic& operator=(const PreparationWindowLogic&) = delete;

    bool Open() override;
    void Close() override;
    void WaitClosed() override;

    // The checksum and extraction messages and the close request; the others are not
    // this window's. Returns 0.
    platform::LResult HandleMessage(const app::Message& message);
    // The window as senders see it (the process-wide preparation window).
    std::shared_ptr<app::MessageWindow> Receiver() const;

    int PreparationResult() const;
    PreparationView View() const;
    // Called after every change, on the changing thread, without the lock held.
    void SetObserver(std::function<void()> observer);
    // Blocks until the PAC preparation thread (if any) has ended.
    void WaitForWork();

    void SetTempFolderSource(CBinPack::TempFolderSource source) { tempFolder_ = std::move(source); }

private:
    class WindowReceiver;
    void Changed();
    void CloseWindow();
    void ShowChecksumProgress(const app::ChecksumProgress& record);

    app::Station& station_;
    app::TellOperator tell_;
    StartVerify startVerify_;
    CBinPack::TempFolderSource tempFolder_;
    std::shared_ptr<WindowReceiver> receiver_;
    std::thread work_;

    mutable std::mutex mutex_;
    std::condition_variable closedCv_;
    PreparationView view_;
    std::string barFormat_ = "%d%%";
    int result_ = 0;
    bool workEnded_ = false;  // the PAC preparation thread has finished
    std::function<void()> observer_;
};

// The bar's own formatting pass: "%d" becomes the position, "%%" a percent sign,
// anything else stays as it is (a file name may hold '%').
std::string FormatBarText(const std::string& format, int position);

}  // namespace quorvel::packages
