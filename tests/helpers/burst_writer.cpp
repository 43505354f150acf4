// Saves bindings and counters in a tight loop until killed; used by the crash test.
#include <string>

#include "app/Station.h"

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    quorvel::platform::SystemClock clock;
    quorvel::app::HeadlessConsoleUi ui;
    quorvel::app::StationOptions options;
    options.exeDir = argv[1];
    options.machineStamp = [] { return std::string("00-11-22-33-44-55"); };
    quorvel::app::Station st(std::move(options), clock, ui);
    if (!st.settingsStore.SettingsLoad()) return 3;
    for (unsigned i = 0;; ++i) {
        for (int n = 0; n < quorvel::app::kSlotCount; ++n) {
            st.bindings.SetHsLocation(n, "hub\\PORT" + std::to_string(i % 7));
            st.bindings.SetComName(n, "Diag (COM" + std::to_string(n + 1) + ")");
        }
        st.settingsStore.SaveBindings();
        st.statistics.CountJob(i % 3 == 0);
    }
}
