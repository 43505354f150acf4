// Starts as the station does and then records jobs (history line and counters) and
// saves bindings in a tight loop until killed; prints each total once it is on disk.
// Used by the crash test.
#include <unistd.h>

#include <string>

#include "console/AppStartup.h"
#include "station/Station.h"

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    quorvel::platform::SystemClock clock;
    quorvel::app::HeadlessConsoleUi ui;
    quorvel::app::StationOptions options;
    options.exeDir = argv[1];
    options.machineStamp = [] { return std::string("00-11-22-33-44-55"); };
    quorvel::app::Station st(std::move(options), clock);
    quorvel::app::AppStartup::CreateFolders(st.ExeDir(), ui);
    if (!st.settingsStore.SettingsLoad()) return 3;
    for (unsigned i = 0;; ++i) {
        for (int n = 0; n < quorvel::app::kSlotCount; ++n) {
            st.bindings.SetHsLocation(n, "hub\\PORT" + std::to_string(i % 7));
            // A product string with line breaks must not change the file's structure.
            st.bindings.SetComName(n, "Diag\r\n[COMMON]\nMac=0 (COM" + std::to_string(n + 1) + ")");
        }
        st.settingsStore.SaveBindings();
        quorvel::app::JobRecord job;
        job.slot = static_cast<int>(i % 16);
        job.start = job.end = quorvel::app::LocalTimeStamp(clock.WallSeconds());
        job.jobId = quorvel::app::MakeJobId(job.start, job.slot);
        job.result = i % 3 == 0 ? quorvel::app::JobResult::Fail : quorvel::app::JobResult::Pass;
        st.statistics.RecordJob(job, true);
        const std::string line = std::to_string(st.statistics.Total()) + "\n";
        if (::write(1, line.data(), line.size()) < 0) return 4;
    }
}
