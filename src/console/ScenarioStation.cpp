#include "console/ScenarioStation.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <utility>

#include "console/AppStartup.h"
#include "packages/DemoSprdPackage.h"
#include "packages/PacWriter.h"
#include "platform/MachineStamp.h"
#include "platform/ProfileIni.h"
#include "present/CloseCheck.h"
#include "slots/SlotDisplay.h"
#include "station/BindState.h"
#include "station/Messages.h"

namespace quorvel::console {

namespace {

const char* ModeName(std::optional<sim::PhoneMode> mode) {
    if (!mode) return "none";
    switch (*mode) {
        case sim::PhoneMode::BROM: return "brom";
        case sim::PhoneMode::PRELOADER: return "preloader";
        case sim::PhoneMode::DA: return "da";
        case sim::PhoneMode::SPRD: return "sprd";
        case sim::PhoneMode::SPRD_DOWNLOAD: return "sprd-download";
        case sim::PhoneMode::CFG: return "cfg";
    }
    return "?";
}

const char* PhaseName(app::SlotPhase phase) {
    switch (phase) {
        case app::SlotPhase::IDLE: return "IDLE";
        case app::SlotPhase::FLASHING: return "FLASHING";
        case app::SlotPhase::PASS: return "PASS";
        case app::SlotPhase::FAIL: return "FAIL";
        case app::SlotPhase::INTERRUPTED: return "INTERRUPTED";
    }
    return "?";
}

// A cell's colour and icon, "grey socket".
std::string Look(const app::SlotCell& cell) {
    const std::string icon = cell.icon == app::kIconSocket  ? " socket"
                             : cell.icon == app::kIconPhone ? " phone"
                                                            : " none";
    const app::Rgb c = cell.colour;
    if (c == app::kBlack) return "black" + icon;
    if (c == engine::kColourGrey) return "grey" + icon;
    char hex[9];
    std::snprintf(hex, sizeof hex, "0x%06x", c & 0xFFFFFFu);
    return hex + icon;
}

// A bench socket's locations read "socket K" and "socket K LS", so that scenarios need
// not know hub names.
std::string Location(const std::string& location, sim::ScenarioBench* bench) {
    for (int k = 0; bench && k < bench->SocketCount(); ++k) {
        if (location == bench->HsLocation(k)) return "socket " + std::to_string(k);
        if (location == bench->LsLocation(k)) return "socket " + std::to_string(k) + " LS";
    }
    return location;
}

std::string HistoryLines(const std::string& dir) {
    std::vector<std::filesystem::path> files;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec))
        if (e.path().extension() == ".jsonl") files.push_back(e.path());
    std::sort(files.begin(), files.end());
    std::string out;
    for (const auto& f : files) {
        std::ifstream in(f);
        for (std::string line; std::getline(in, line);) out += (out.empty() ? "" : "\n") + line;
    }
    return out;
}

// The package files a scenario may choose, made in the station's fw/ when missing.
std::string PackageFile(const std::string& exeDir, const std::string& name) {
    const std::string fw = exeDir + "fw/";
    std::error_code ec;
    std::filesystem::create_directories(fw, ec);
    auto make = [&](const std::string& file, const std::string& text) {
        if (!std::filesystem::exists(fw + file)) std::ofstream(fw + file) << text;
        return fw + file;
    };
    if (name == "scatter") return make("MT6765_Android_scatter.txt", "scatter\n");
    if (name == "cfg") return make("phone.cfg", "cfg\n");
    if (name == "pac") {
        if (!std::filesystem::exists(fw + "demo.pac")) packages::WritePac(fw + "demo.pac", packages::DemoSprdPac(4096));
        return fw + "demo.pac";
    }
    if (name == "none") return "";
    return name.front() == '/' ? name : exeDir + name;
}

}  // namespace

ScenarioStation::Process::Process(platform::Clock& clock, app::StationOptions options, platform::SysPaths paths)
    : station(std::move(options), clock),
      loop(clock),
      controller(station, loop, ui),
      rig(station, loop, controller, std::move(paths)) {
    loop.SetHandler(&controller);
    // As the window's start-up: the folders, and no temporary file left by a killed writer.
    app::AppStartup::CreateFolders(station.ExeDir(), ui);
    loop.Start();
    loop.Call([&] { ready = controller.OnInitDialog(); });
}

ScenarioStation::Process::~Process() {
    rig.Close(loop, ready);
}

ScenarioStation::ScenarioStation(platform::Clock& clock, std::function<app::StationOptions()> options, DeviceTree* tree,
                                 platform::SysPaths paths)
    : clock_(clock), options_(std::move(options)), tree_(tree), paths_(std::move(paths)) {}

ScenarioStation::~ScenarioStation() {
    Close();
}

void ScenarioStation::Close() {
    if (tree_ && process_) tree_->Serve(nullptr);
    process_.reset();
}

bool ScenarioStation::Up(std::string& why) {
    if (!process_) {
        process_ = std::make_unique<Process>(clock_, options_(), paths_);
        if (tree_) tree_->Serve(&process_->rig);
    }
    if (!process_->ready) why = "its start-up failed";
    return process_->ready;
}

sim::ScenarioBench* ScenarioStation::Bench() {
    if (!process_) return nullptr;
    if (sim::SimBench* bench = process_->rig.Bench()) return bench;
    return tree_;
}

void ScenarioStation::Press() {
    if (process_) process_->loop.Send(app::Command{app::CommandId::START_STOP});
}

void ScenarioStation::Menu(const std::string& item, int row) {
    if (!process_) return;
    const app::CommandId id = item == "remove-binding" ? app::CommandId::REMOVE_BIND
                              : item == "remove-all"   ? app::CommandId::REMOVE_ALL_BIND
                              : item == "merge"        ? app::CommandId::MERGE_REPEAT_BIND
                                                       : app::CommandId::REMOVE_STATISTICS;
    process_->loop.Call([&] { process_->controller.SetSelectedRow(row); });
    process_->loop.Send(app::Command{id});
}

bool ScenarioStation::Running() {
    bool running = false;
    Read([&](Process& p) { running = p.station.stationRunning; });
    return running;
}

void ScenarioStation::Read(const std::function<void(Process&)>& read) {
    if (process_) process_->loop.Call([&] { read(*process_); });
}

std::string ScenarioStation::Observe(const std::vector<std::string>& subject) {
    if (!process_) return "no station";
    if (subject.at(0) == "file") {
        std::error_code ec;
        return std::filesystem::exists(options_().exeDir + subject.at(1), ec) ? "yes" : "no";
    }
    if (subject.at(0) == "setting")
        return platform::ProfileIni::ReadString(options_().exeDir + "Config/CommonSetting.ini", subject.at(1),
                                                subject.at(2), "", 1024);
    std::string seen;
    sim::ScenarioBench* bench = Bench();
    const std::string& what = subject.at(0);
    Read([&](Process& p) {
        app::Station& st = p.station;
        if (what == "slot") {
            const int slot = std::stoi(subject.at(1));
            const std::string& field = subject.at(2);
            if (slot >= app::kSlotCount) {
                seen = "no slot";
                return;
            }
            const auto b = st.bindings.Get(slot);
            if (field == "state")
                seen = app::BindStateName(b.state);
            else if (field == "hs")
                seen = Location(b.hs, bench);
            else if (field == "ls")
                seen = Location(b.ls, bench);
            else if (field == "com")
                seen = b.com;
            else if (slot >= st.slotList.RowCount())
                seen = "no row";
            else if (field == "result")
                seen = st.slotList.ResultText(slot);
            else if (field == "device")
                seen = st.slotList.CellText(slot, app::COL_DEVICE);
            else if (field == "timer")
                seen = st.slotList.CellText(slot, app::COL_TIMER);
            else if (field == "number")
                seen = st.slotList.CellText(slot, app::COL_NUMBER);
            else if (field == "bar")
                seen = st.slotList.Row(slot).progress.text;
            else if (field == "phase")
                seen = PhaseName(st.slotList.Row(slot).phase);
            else if (field == "look")
                seen = Look(st.slotList.Row(slot).cells[app::COL_DEVICE]);
        } else if (what == "socket") {
            seen = bench ? ModeName(bench->ModeAt(std::stoi(subject.at(1)))) : "no bench";
        } else if (what == "total") {
            seen = std::to_string(st.statistics.Total());
        } else if (what == "fail") {
            seen = std::to_string(st.statistics.Fail());
        } else if (what == "rows") {
            seen = std::to_string(st.slotList.RowCount());
        } else if (what == "workers") {
            seen = std::to_string(p.rig.Run().Manager().WorkerCount());
        } else if (what == "served" || what == "results") {
            const auto tally = p.rig.Phones().Results();
            seen = std::to_string(what == "served" ? tally.phones : tally.results);
        } else if (what == "running") {
            seen = st.stationRunning ? "yes" : "no";
        } else if (what == "idle") {
            bool idle = true;
            for (int i = 0; i < app::kSlotCount; ++i)
                idle = idle && !st.slots.jobRunning[i] && st.bindings.State(i) != app::BindState::Busy;
            seen = idle ? "yes" : "no";
        } else if (what == "button") {
            const auto b = p.controller.ButtonStatus();
            seen = b == DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_INIT    ? "INIT"
                   : b == DownloadButtonStatus::DOWNLOAD_BUTTON_STATUS_START ? "START"
                                                                             : "STOP";
        } else if (what == "messages") {
            for (const auto& m : p.ui.Messages()) seen += (seen.empty() ? "" : " | ") + m;
            if (seen.empty()) seen = "none";
        } else if (what == "history") {
            seen = HistoryLines(st.history.Dir());
        } else if (what == "notice") {
            seen = st.view.Notice();
        } else if (what == "closing") {
            for (int slot : console::BusySlots(st.slots)) seen += (seen.empty() ? "" : " ") + std::to_string(slot);
            if (seen.empty()) seen = "none";
        } else if (what == "banner") {
            seen = st.view.Text(app::IDC_PATH_BANNER);
        } else if (what == "engines") {
            const app::EngineVersions v = p.rig.Run().Manager().EngineVersionTexts();
            seen = "DA " + v.daVersion + " | " + v.module1Version + " | " + v.module2Version;
        }
    });
    return seen;
}

bool ScenarioStation::Set(const std::string& section, const std::string& key, const std::string& value,
                          std::string& why) {
    // The station writes some settings back when it closes: a setting for the next
    // start-up waits until then.
    if (process_) {
        pending_.push_back({section, key, value});
        return true;
    }
    return Write({section, key, value}, why);
}

bool ScenarioStation::Write(const Setting& setting, std::string& why) {
    const auto& [section, key, value] = setting;
    const app::StationOptions options = options_();
    const std::string ini = options.exeDir + "Config/CommonSetting.ini";
    const bool package = section.empty() && key == "package";
    bool done;
    if (package) {
        // The package counts as chosen on this PC: the station drops the choice of a
        // folder whose machine stamp is not its own, as on a fresh copy of the template.
        const std::string stamp = options.machineStamp ? options.machineStamp() : platform::FirstAdapterMac();
        done = platform::ProfileIni::WriteString(ini, "COMMON", "FilePath", PackageFile(options.exeDir, value)) &&
               platform::ProfileIni::WriteString(ini, "COMMON", "Mac", stamp);
    } else {
        done = platform::ProfileIni::WriteString(ini, section, key, value);
    }
    if (!done) why = "cannot write " + ini;
    return done;
}

bool ScenarioStation::WriteFile(const std::string& file, const std::string& text, std::string& why) {
    const std::string path = options_().exeDir + file;
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out.flush()) why = "cannot write " + path;
    return static_cast<bool>(out);
}

bool ScenarioStation::Restart(std::string& why) {
    Close();
    for (const Setting& s : std::exchange(pending_, {}))
        if (!Write(s, why)) return false;
    return Up(why);
}

}  // namespace quorvel::console
