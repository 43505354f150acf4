#include "engines/program/ProgramSprdEngine.h"

#include "station/Messages.h"
#include "station/Station.h"
#include "station/Texts.h"

namespace quorvel::engine {

ProgramSprdEngine::ProgramSprdEngine(ProgramContext& context, app::MessageWindow& window)
    : context_(context), window_(window), job_(context.station.clock) {}

ProgramSprdEngine::~ProgramSprdEngine() {
    StopThread();
}

void ProgramSprdEngine::SetSPRDParameters(int selectedFileCount, unsigned long, std::string productName,
                                          std::vector<app::DlFileInfo> files, std::string configFilePath) {
    FileRows lines;
    for (const auto& f : files)
        lines.push_back({app::FieldText(f.FileId), app::FieldText(f.FilePath), std::to_string(f.FileSize),
                         std::to_string(f.CheckFlag)});
    std::lock_guard g(mutex_);
    selectedFileCount_ = selectedFileCount;
    productName_ = std::move(productName);
    configFilePath_ = std::move(configFilePath);
    fileLines_ = std::move(lines);
}

int ProgramSprdEngine::StartWork() {
    std::lock_guard g(mutex_);
    firstPhase_ = true;
    return 0;
}

void ProgramSprdEngine::StopThread() {
    job_.Cancel();
    std::thread t;
    {
        std::lock_guard g(mutex_);
        t = std::move(thread_);
    }
    if (t.joinable()) t.join();
}

int ProgramSprdEngine::StartOnePortWork(unsigned long port, int) {
    StopThread();
    job_.Reset();
    std::lock_guard g(mutex_);
    const bool phase1 = firstPhase_;
    firstPhase_ = false;
    steps_.clear();
    const auto [node, device, location] = context_.DeviceOfPort(port);
    JobRequest request;
    std::string error;
    context_.MakeJob(context_.settings.sprd, "SPRD", -1,
                     {{"port", std::to_string(port)},
                      {"node", node},
                      {"device", device},
                      {"location", location},
                      {"package", configFilePath_},
                      {"phase", phase1 ? "1" : "2"}},
                     {"SelectedFileCount=" + std::to_string(selectedFileCount_), "ProductName=" + productName_},
                     &fileLines_, request, error);
    thread_ = std::thread(
        [this, port, request = std::move(request), error, phase1] { RunPort(port, request, error, phase1); });
    return 0;
}

int ProgramSprdEngine::StopOnePortWork(unsigned long, int) {
    StopThread();
    return 0;
}

std::string ProgramSprdEngine::GetStepName(int step) {
    std::lock_guard g(mutex_);
    if (step < 0 || step >= static_cast<int>(steps_.size())) return "";
    return app::texts::kSprdStepNames[steps_[static_cast<std::size_t>(step)]];
}

void ProgramSprdEngine::RunPort(unsigned long port, const JobRequest& request, const std::string& makeError,
                                bool phase1) {
    // The percent is posted, so the engine thread does not wait for it.
    auto post = [&](std::uint64_t percent) {
        window_.Post(app::SprdProgress{port, static_cast<std::uint32_t>(percent)});
    };
    const BenchPhone phone(context_, "", port, job_);
    window_.Send(app::SprdBegin{port});
    bool switching = false;
    JobOutcome outcome{JobOutcome::FAULT, makeError};
    if (makeError.empty()) {
        outcome = job_.Run(request, [&](const protocol::Event& e) {
            switch (e.type) {
                case protocol::Event::STEP: {
                    std::lock_guard g(mutex_);
                    steps_.push_back(e.step);
                }
                    window_.Send(app::SprdStepNamed{port});
                    window_.Send(app::SprdStepEntered{port, static_cast<app::SprdStep>(e.step)});
                    break;
                case protocol::Event::PROGRESS:
                    if (e.percent)
                        post(*e.percent);
                    else if (e.total && *e.total > 0)
                        post(*e.done * 100 / *e.total);
                    break;
                case protocol::Event::SWITCH: switching = true; break;
                case protocol::Event::DEVICE: window_.Send(app::SprdIdentity{port, e.device}); break;
                default: break;
            }
        });
    }
    // Stopped by the station: nothing more to say, as the in-process engine, and the
    // phone's tally counts it failed as the station does. A pulled phone fails its step.
    // A first phase stopped after its switch was said is not undone: the phone comes
    // back on its download port all the same, and counted failed here it would be
    // served there again and counted twice.
    const bool switched = phase1 && switching;
    if (outcome.kind == JobOutcome::CANCELLED && !phone.Lost() && !switched) {
        phone.Result(true);
        return;
    }
    std::string error;
    if (outcome.kind == JobOutcome::CANCELLED && phone.Lost())
        error = app::texts::kSprdStepNames[static_cast<int>(app::SprdStep::UNPLUGGED)];
    if (outcome.kind == JobOutcome::FAILED) error = outcome.text.empty() ? "Download failed" : outcome.text;
    if (outcome.kind == JobOutcome::FAULT) error = outcome.text;
    // A passing first phase hands over to the second; anything else is the phone's result.
    if (!phase1 || !error.empty()) phone.Result(!error.empty());
    const bool reEnumerate = phase1 && error.empty() && switching;
    // Sent: the row shows the result before the phone's switch is announced.
    window_.Send(app::SprdResult{port, std::move(error), reEnumerate});
    if (reEnumerate) context_.NotifySwitch({SwitchEvent::SPRD_TO_DOWNLOAD_PORT, "", port, -1});
}

}  // namespace quorvel::engine
