#pragma once
// CommonSetting.ini: the options, the language, the package path, the machine
// stamp and the port binding table. Loads run on the station thread during start-up;
// SaveBindings and LanguageSave may run on any thread and hold the settings lock.

#include <functional>
#include <mutex>
#include <set>
#include <string>

namespace quorvel::app {

class Station;

class SettingsStore {
public:
    using MachineStampSource = std::function<std::string()>;

    // `machineStamp` gives this PC's stamp (the first adapter's MAC by default).
    explicit SettingsStore(Station& station, MachineStampSource machineStamp = {});

    std::string FilePath() const;

    // 0 when the file is missing (MissingFileProblem says why).
    int LanguageLoad();
    int SettingsLoad();
    void LanguageSave();
    // The console's view, [UI] BenchView: non-zero for the bench tiles, else the slot list.
    bool BenchViewLoad() const;
    void BenchViewSave(bool on);
    void SaveBindings();
    std::string MachineStamp() const;
    void UiLog(const std::string& text) const;

    // After a write to a settings or counter file: a failure is said once per file,
    // on stderr, in the debug log and in the status bar. Reads errno. Any thread.
    void Written(const std::string& path, bool ok);

    // Why the settings file cannot be read (its path and the error code), for the
    // operator; empty when it exists. The loads fail without a word when it does not.
    std::string MissingFileProblem() const;

private:
    Station& station_;
    MachineStampSource machineStamp_;
    std::mutex settingsLock_;
    std::mutex reportedLock_;
    std::set<std::string> reported_;
};

}  // namespace quorvel::app
