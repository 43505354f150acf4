// The preparation window's logic: progress messages from the work's threads (6027,
// 6029), the result, closing by the work or by the operator while the work goes on.
#include <gtest/gtest.h>

#include <thread>

#include "present/PreparationWindowLogic.h"
#include "station/Messages.h"
#include "station/Station.h"
#include "station/Texts.h"
#include "support/PacWriter.h"
#include "support/StationFixture.h"

using namespace quorvel;
using namespace quorvel::packages;
using quorvel::test::PacSpec;

namespace {

// Selects pkg.pac as the station's SPRD package (written only when a layout is given).
void UsePac(test::StationFixture& fx, const std::optional<PacSpec>& layout) {
    if (layout) fx.dir.Write("pkg.pac", test::BuildPac(*layout));
    fx.station->package.kind = app::PackageKind::SprdPac;
    fx.station->package.pacFilePath = fx.dir.File("pkg.pac");
}

void WithTempFolder(PreparationWindowLogic& window, test::StationFixture& fx) {
    window.SetTempFolderSource([&] { return std::optional<std::string>(fx.dir.Path()); });
}

TEST(PreparationWindow, TheLoadsOutcomeDecidesResultAndMessages) {
    PacSpec badVersion = test::SmallSprdPac(), noBackup = test::SmallSprdPac();
    badVersion.version = "BP_R2.0.0";
    noBackup.nvBackupFlag = 0;
    namespace tx = app::texts;
    const struct {
        const char* label;
        std::optional<PacSpec> layout;
        int result;
        std::vector<std::string> messages;  // {} stands for the open failure
    } rows[] = {
        {"extraction_fails", badVersion, 0, {tx::kPacVersionNotSupported, tx::kPrepUnzipFailed}},
        // A configuration check failing after a good extraction still gives 1.
        {"check_fails_after_extraction", noBackup, 1, {tx::kSprdNoNvBackup}},
        // No end notice ever comes: the window waits for the operator (below).
        {"never_reaches_extraction", std::nullopt, 0, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        test::StationFixture fx;
        UsePac(fx, row.layout);
        PreparationWindowLogic window(*fx.station, fx.ui.Teller());
        WithTempFolder(window, fx);
        if (row.layout) {
            fx.ui.RunPreparationDialog(window);
        } else {
            // Only an end notice closes the window by itself; without a screen the
            // operator closes it once the work has ended.
            ASSERT_TRUE(window.Open());
            window.WaitForWork();
            EXPECT_FALSE(window.View().closed);
            window.WaitClosed();
        }
        window.WaitForWork();
        EXPECT_EQ(window.PreparationResult(), row.result);
        EXPECT_TRUE(window.View().closed);
        EXPECT_EQ(window.View().title, "Unzip files");
        if (row.result == 1) {
            EXPECT_EQ(window.View().barPosition, 100);
            EXPECT_EQ(window.View().barText, "100%");
        }
        const std::string openFailed = "Can not open file [" + fx.dir.File("pkg.pac") + "]\n";
        EXPECT_EQ(fx.ui.Messages(), row.layout ? row.messages : std::vector<std::string>{openFailed});
    }
}

TEST(PreparationWindow, ChecksumRecordsTextsMegabytesResultAndClose) {
    test::StationFixture fx(2052);
    fx.station->language.SetLanguageId(2052);
    fx.station->validatedMegabytes = 99.0;
    fx.station->package.kind = app::PackageKind::MtkScatter;
    std::shared_ptr<app::MessageWindow> receiver;
    PreparationWindowLogic window(*fx.station, fx.ui.Teller(), [&](auto r) { receiver = r; });
    ASSERT_TRUE(window.Open());
    EXPECT_EQ(window.View().title, "校验文件");
    EXPECT_EQ(window.View().status, "正在进行中...");
    EXPECT_EQ(fx.station->validatedMegabytes.load(), 0.0);

    auto send = [&](const char* path, int percent, std::uint64_t done, std::uint64_t total) {
        receiver->Send(app::ChecksumProgress{path, static_cast<std::uint8_t>(percent), done, total});
    };
    constexpr std::uint64_t MiB = 1048576;
    send("C:\\fw\\system%d.img", 45, 3 * MiB + MiB / 2, 10 * MiB);
    EXPECT_EQ(window.View().status, "正在校验文件：system%d.img(3.50/10.00M)");
    EXPECT_EQ(window.View().barText, "system%d.img(45%)");
    EXPECT_EQ(window.View().barPosition, 45);
    send("/fw/a.img", 99, 1, 10 * MiB);
    EXPECT_EQ(fx.station->validatedMegabytes.load(), 0.0);
    send("/fw/a.img", 100, 10 * MiB, 10 * MiB);
    send("/fw/b.img", 100, 3 * MiB + MiB / 2, 3 * MiB + MiB / 2);
    EXPECT_EQ(fx.station->validatedMegabytes.load(), 13.0);

    const char* text = "checksum of b.img is wrong";
    receiver->Send(app::ChecksumNote{text});
    EXPECT_EQ(fx.ui.Messages(), std::vector<std::string>{text});
    receiver->Send(app::ChecksumResult{true});
    EXPECT_EQ(window.PreparationResult(), 1);
    EXPECT_FALSE(window.View().closed);
    receiver->Send(app::CloseWindow{});
    EXPECT_TRUE(window.View().closed);
    window.WaitClosed();

    // A closed window has no receiver: later messages change nothing.
    receiver->Send(app::ChecksumResult{false});
    EXPECT_EQ(window.PreparationResult(), 1);
}

TEST(PreparationWindow, ClosedByTheOperatorKeepsZeroWhileTheWorkGoesOn) {
    test::StationFixture fx;
    UsePac(fx, test::SmallSprdPac());
    {
        PreparationWindowLogic window(*fx.station, fx.ui.Teller());
        WithTempFolder(window, fx);
        // Escape as soon as the extraction has begun.
        window.SetObserver([&] {
            if (window.View().status == "Unzipping files...") window.Close();
        });
        fx.ui.RunPreparationDialog(window);
        EXPECT_TRUE(window.View().closed);
        window.WaitForWork();
        EXPECT_EQ(window.PreparationResult(), 0);  // the end notice found no window
        EXPECT_NE(window.View().barPosition, 100);
    }
    EXPECT_EQ(fx.station->sprdParams.Get()->SelectedFileCount, 3);  // the load itself finished
}

TEST(PreparationWindow, TheOperatorClosesWhileAHandlersMessageBoxWaits) {
    // As on the GUI: while a handler's box waits, the operator's Escape is taken on
    // another thread. A lock held across the box would never let that close finish.
    struct Gui final : app::HeadlessConsoleUi {
        PreparationWindowLogic* window = nullptr;
        void MessageBox(const std::string& text) override {
            HeadlessConsoleUi::MessageBox(text);
            std::thread escape([this] { window->Close(); });
            escape.join();
        }
    };
    const app::Message rows[] = {app::ChecksumNote{"checksum of b.img is wrong"}, app::PacEnded{false}};
    for (const auto& row : rows) {
        test::StationFixture fx;
        Gui gui;
        app::Station& station = *fx.station;
        station.package.kind = app::PackageKind::MtkScatter;
        std::shared_ptr<app::MessageWindow> receiver;
        PreparationWindowLogic window(station, gui.Teller(), [&](auto r) { receiver = r; });
        gui.window = &window;
        ASSERT_TRUE(window.Open());
        receiver->Send(row);
        EXPECT_TRUE(window.View().closed);
        EXPECT_EQ(gui.Messages().size(), 1u);
    }
}

TEST(PreparationWindow, NothingStartedClosesAtOnceWithResultZero) {
    test::StationFixture fx;
    fx.station->package.kind = app::PackageKind::MtkScatter;
    PreparationWindowLogic window(*fx.station, fx.ui.Teller());  // no engine holder
    fx.ui.RunPreparationDialog(window);
    EXPECT_TRUE(window.View().closed);
    EXPECT_EQ(window.PreparationResult(), 0);
    EXPECT_EQ(FormatBarText("%d%%", 7), "7%");
    EXPECT_EQ(FormatBarText("a%sb%", 7), "a%sb%");
}

}  // namespace
