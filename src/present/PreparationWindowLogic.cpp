#include "present/PreparationWindowLogic.h"

#include <cstdio>

#include "engines/EngineRecords.h"
#include "packages/SprdDownloadConfig.h"
#include "station/Messages.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::packages {
namespace texts = app::texts;

// Forwards to the window while it is open; a closed or destroyed window drops messages.
// No lock is held while a handler runs: a handler may wait for the operator (a message
// box on the GUI thread) while the GUI thread closes the window.
class PreparationWindowLogic::WindowReceiver final : public app::MessageWindow {
public:
    WindowReceiver(PreparationWindowLogic* logic, platform::Clock& clock) : logic_(logic), clock_(clock) {}
    platform::LResult Send(app::Message message) override {
        PreparationWindowLogic* logic;
        {
            std::lock_guard g(mutex_);
            if (!logic_) return 0;
            logic = logic_;
            ++handling_;
        }
        const platform::LResult r = logic->HandleMessage(message);
        {
            std::lock_guard g(mutex_);
            --handling_;
        }
        idle_.notify_all();
        return r;
    }
    void Post(app::Message message) override { Send(std::move(message)); }
    void SetTimer(int, platform::Millis) override {}
    void KillTimer(int) override {}
    // Later messages are dropped; a handler already running finishes.
    void Detach() {
        std::lock_guard g(mutex_);
        logic_ = nullptr;
    }
    // Detaches and waits until no handler runs, so the logic may go away.
    void DetachAndWait() {
        std::unique_lock lk(mutex_);
        logic_ = nullptr;
        clock_.WaitFor(lk, idle_, platform::kForever, [this] { return handling_ == 0; });
    }

private:
    std::mutex mutex_;
    std::condition_variable idle_;
    PreparationWindowLogic* logic_;
    int handling_ = 0;
    platform::Clock& clock_;
};

std::string FormatBarText(const std::string& format, int position) {
    std::string out;
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] == '%' && i + 1 < format.size()) {
            if (format[i + 1] == '%') {
                out += '%';
                ++i;
                continue;
            }
            if (format[i + 1] == 'd') {
                out += std::to_string(position);
                ++i;
                continue;
            }
        }
        out += format[i];
    }
    return out;
}

PreparationWindowLogic::PreparationWindowLogic(app::Station& station, app::TellOperator tell, StartVerify startVerify)
    : station_(station),
      tell_(std::move(tell)),
      startVerify_(std::move(startVerify)),
      tempFolder_(CBinPack::SystemTempFolder),
      receiver_(std::make_shared<WindowReceiver>(this, station.clock)) {
    view_.status = texts::kPrepInProgress;
    view_.barText = FormatBarText(barFormat_, 0);
}

std::shared_ptr<app::MessageWindow> PreparationWindowLogic::Receiver() const {
    return receiver_;
}

PreparationWindowLogic::~PreparationWindowLogic() {
    WaitForWork();
    receiver_->DetachAndWait();
}

void PreparationWindowLogic::WaitForWork() {
    if (work_.joinable()) work_.join();
}

bool PreparationWindowLogic::Open() {
    station_.validatedMegabytes.store(0.0);
    {
        std::lock_guard g(mutex_);
        result_ = 0;
        workEnded_ = false;
        view_.barPosition = 0;
        barFormat_ = "%d%%";
        view_.barText = FormatBarText(barFormat_, 0);
    }
    bool started = false;
    const app::PackageKind kind = station_.package.kind;
    if (kind == app::PackageKind::None || kind == app::PackageKind::MtkScatter) {
        {
            std::lock_guard g(mutex_);
            view_.title = station_.language.ChooseText(texts::kPrepTitleValidate);
        }
        if (startVerify_) {
            startVerify_(Receiver());
            started = true;
        }
    } else if (kind == app::PackageKind::SprdPac) {
        const std::string path = station_.package.pacFilePath;
        std::shared_ptr<app::MessageWindow> receiver = Receiver();
        work_ = std::thread([this, path, receiver, temp = tempFolder_] {
            CSprdDownloadConfig config(station_, receiver.get(), tell_);
            config.SetTempFolderSource(temp);
            config.LoadPackage(path.c_str());
            // Only the end notice closes the window; a load that failed before extraction
            // sent none, and the window waits for the operator.
            {
                std::lock_guard g(mutex_);
                workEnded_ = true;
            }
            closedCv_.notify_all();
        });
        started = true;
        std::lock_guard g(mutex_);
        view_.title = station_.language.ChooseText(texts::kPrepTitleUnzip);
    }
    Changed();
    return started;
}

void PreparationWindowLogic::CloseWindow() {
    {
        std::lock_guard g(mutex_);
        if (view_.closed) return;
        view_.closed = true;
    }
    receiver_->Detach();
    closedCv_.notify_all();
    Changed();
}

void PreparationWindowLogic::Close() {
    CloseWindow();
}

void PreparationWindowLogic::WaitClosed() {
    std::unique_lock lk(mutex_);
    station_.clock.WaitFor(lk, closedCv_, platform::kForever, [this] { return view_.closed || workEnded_; });
    const bool operatorCloses = !view_.closed;
    lk.unlock();
    // Nothing is left that could close the window: the operator without a screen ends it.
    if (operatorCloses) CloseWindow();
}

platform::LResult PreparationWindowLogic::HandleMessage(const app::Message& message) {
    std::visit(app::Overloaded{
                   [&](const app::ChecksumProgress& m) { ShowChecksumProgress(m); },
                   [&](const app::ChecksumNote& m) {
                       if (tell_) tell_(m.text);
                   },
                   [&](const app::ChecksumResult& m) {
                       std::lock_guard g(mutex_);
                       result_ = m.passed ? 1 : 0;
                   },
                   [&](const app::PacStarted&) {
                       {
                           std::lock_guard g(mutex_);
                           view_.barPosition = 0;
                           view_.barText = FormatBarText(barFormat_, 0);
                           view_.status = station_.language.ChooseText(texts::kPrepUnzipping);
                       }
                       Changed();
                   },
                   [&](const app::PacPercent& m) {
                       {
                           std::lock_guard g(mutex_);
                           view_.barPosition = m.percent;
                           view_.barText = FormatBarText(barFormat_, view_.barPosition);
                       }
                       Changed();
                   },
                   [&](const app::PacEnded& m) {
                       {
                           std::lock_guard g(mutex_);
                           result_ = m.ok ? 1 : 0;
                           if (m.ok) {
                               view_.barPosition = 100;
                               view_.barText = FormatBarText(barFormat_, 100);
                           }
                       }
                       if (!m.ok && tell_)
                           tell_(texts::kPrepUnzipFailed);
                       else
                           Changed();
                       CloseWindow();
                   },
                   [&](const app::CloseWindow&) { CloseWindow(); },
                   [](const auto&) {},
               },
               message);
    return 0;
}

void PreparationWindowLogic::ShowChecksumProgress(const app::ChecksumProgress& record) {
    const std::size_t cut = record.path.find_last_of("\\/");
    const std::string name = cut == std::string::npos ? record.path : record.path.substr(cut + 1);
    char numbers[96];
    std::snprintf(numbers, sizeof numbers, "(%.02lf/%.02lfM)", static_cast<double>(record.bytesDone) / 1024.0 / 1024.0,
                  static_cast<double>(record.bytesTotal) / 1024.0 / 1024.0);
    {
        std::lock_guard g(mutex_);
        view_.status = station_.language.ChooseText(texts::kPrepValidating) + name + numbers;
        // The name is escaped for the bar's formatting pass, so it shows as it is.
        std::string escaped;
        for (char c : name) escaped += c == '%' ? std::string("%%") : std::string(1, c);
        barFormat_ = escaped + "(" + std::to_string(record.percent) + "%%)";
        view_.barPosition = record.percent;
        view_.barText = FormatBarText(barFormat_, view_.barPosition);
    }
    if (record.percent == 100) {
        // Whole megabytes on purpose: the download speed shown has always been based on them.
        // NOLINTNEXTLINE(bugprone-integer-division)
        const double megabytes = static_cast<double>(record.bytesTotal / 1024 / 1024);
        double current = station_.validatedMegabytes.load();
        while (!station_.validatedMegabytes.compare_exchange_weak(current, current + megabytes)) {
        }
    }
    Changed();
}

int PreparationWindowLogic::PreparationResult() const {
    std::lock_guard g(mutex_);
    return result_;
}

PreparationView PreparationWindowLogic::View() const {
    std::lock_guard g(mutex_);
    return view_;
}

void PreparationWindowLogic::SetObserver(std::function<void()> observer) {
    std::lock_guard g(mutex_);
    observer_ = std::move(observer);
}

void PreparationWindowLogic::Changed() {
    std::function<void()> observer;
    {
        std::lock_guard g(mutex_);
        observer = observer_;
    }
    if (observer) observer();
}

}  // namespace quorvel::packages
