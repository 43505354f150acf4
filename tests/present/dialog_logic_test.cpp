#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

#include "present/AboutDialogLogic.h"
#include "present/SettingsDialogLogic.h"
#include "support/Golden.h"
#include "support/StationFixture.h"

namespace quorvel::app {
namespace {

// The dialog's one-second settling waits run in virtual time: a helper thread moves it on.
struct TimeMover {
    explicit TimeMover(platform::ManualClock& c)
        : clock(c), thread([this] {
              while (!done) {
                  if (clock.AwaitWaiters(1, 50)) clock.AdvanceToNextDeadline();
              }
          }) {}
    ~TimeMover() {
        done = true;
        thread.join();
    }
    platform::ManualClock& clock;
    std::atomic<bool> done{false};
    std::thread thread;
};

// Settings and about dialog sessions, a line a step: each answer is the dialog and the
// package selection after the step, and what the operator was told.
TEST(SettingsDialog, Sessions) {
    std::unique_ptr<test::StationFixture> f;
    std::unique_ptr<TimeMover> mover;
    std::unique_ptr<SettingsDialogLogic> d;
    const char* const kinds[] = {"none", "scatter", "pac", "cfg"};
    const auto run = [&](const std::string& line) {
        std::istringstream in(line);
        std::string word, arg, path;
        in >> word >> arg;
        if (word == "fresh") {
            mover.reset();
            f = std::make_unique<test::StationFixture>();
            mover = std::make_unique<TimeMover>(f->clock);
            return std::string();
        }
        PackageSelection& pkg = f->station->package;
        f->ui.Clear();
        if (word == "package") {  // KIND TYPE PATH
            pkg.kind = static_cast<PackageKind>(std::find(kinds, std::end(kinds), arg) - kinds);
            in >> pkg.downloadType >> path;
            (arg == "scatter" ? pkg.scatterFilePath : pkg.pacFilePath) = path;
            pkg.prepared = true;
            return std::string();
        }
        if (word == "backup-setting") {
            f->station->settings.BackupandRestore = std::stoi(arg);
            return std::string();
        }
        if (word == "about") {
            EngineVersions v;
            v.daVersion = "1.2";
            v.daBuild = "b7";
            AboutDialogLogic about(*f->station, v, "", "", "");
            const char* const choices[] = {"chinese", "english", "auto"};
            std::string out = std::string("preselected ") + choices[about.Preselected()];
            for (const auto& l : about.EngineLines()) out += "\nengine line \"" + l + "\"";
            f->station->restartRequired = false;
            about.Confirm(static_cast<AboutDialogLogic::Choice>(std::find(choices, std::end(choices), arg) - choices));
            return out + "\nlanguage " + std::to_string(f->station->language.LanguageId()) +
                   (f->station->restartRequired ? ", restart" : "");
        }
        std::string out;
        if (word == "open") {
            d = std::make_unique<SettingsDialogLogic>(*f->station, f->ui.Teller());
            d->Open();
        }
        if (word == "load" && arg == "-") d->Load(std::nullopt);
        if (word == "load" && arg != "-") {
            if (arg.front() != '/') f->dir.Write(arg, "x");
            d->Load(arg.front() == '/' ? arg : f->dir.File(arg));
        }
        if (word == "select") d->Select(std::stoi(arg));
        if (word == "ok") out = d->Ok() ? "closes\n" : "stays open\n";
        if (word == "cancel") d->Cancel();
        out += "dialog: entry " + std::to_string(d->Selected()) + " of " + std::to_string(d->Entries().size()) +
               (d->ListEnabled() ? "" : " (list off)") + " \"" + d->PathText() +
               "\"\npackage: " + kinds[static_cast<int>(pkg.kind)] + " type " + std::to_string(pkg.downloadType) +
               (pkg.reserveUserData ? " reserve" : "") + (pkg.cfgBackupRestore ? " backup" : "") +
               (pkg.prepared ? " prepared" : "") + " pac \"" + pkg.pacFilePath + "\" folder \"" + pkg.firmwareFolder +
               "\"";
        for (const auto& m : f->ui.Messages()) out += "\ntold: " + m;
        return test::Scrub(out, {{f->dir.Path(), "DIR/"}});
    };
    EXPECT_TRUE(test::MatchesCaseGolden("settings-dialog/sessions.txt", run));
    d.reset();
}

}  // namespace
}  // namespace quorvel::app
