#include "devices/BindingCommands.h"

#include <gtest/gtest.h>

#include "platform/ProfileIni.h"
#include "support/StationFixture.h"

namespace quorvel::devices {
namespace {

using namespace app;

class BindingCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        f.WriteSettings("[COMMON]\nMac=00-11-22-33-44-55\n");
        f.UnbindAllSlots();
    }
    void Bind(int slot, const std::string& hs, std::int32_t state = BIND_ALL_BINDED, const std::string& ls = "NA") {
        st.bindings.SetHsLocation(slot, hs);
        st.bindings.SetLsLocation(slot, ls);
        st.bindings.SetComName(slot, "Port (COM" + std::to_string(slot + 1) + ")");
        st.bindings.SetState(slot, state);
    }
    void Rows(int n) {
        for (int r = 0; r < n; ++r) st.slotList.InsertRow("row" + std::to_string(r));
    }
    std::string Saved(const char* section, int slot) {
        return platform::ProfileIni::ReadString(f.SettingsFile(), section, "Index" + std::to_string(slot), "?", 260);
    }

    test::StationFixture f;
    Station& st = *f.station;
    BindingCommands commands{st};
};

TEST_F(BindingCommandsTest, RemovingAMiddleBindingMovesTheNextOneDown) {
    Bind(0, "hub\\PORT1");
    Bind(1, "hub\\PORT2");
    Bind(2, "hub\\PORT3", BIND_PRELOADER_BINDED);
    Rows(3);
    commands.RemoveTheBind(1);
    EXPECT_EQ(st.bindings.Get(0).hs, "hub\\PORT1");
    EXPECT_EQ(st.bindings.Get(1).hs, "hub\\PORT3");
    EXPECT_EQ(st.bindings.Get(1).com, "Port (COM3)");
    EXPECT_EQ(st.bindings.State(1), BIND_PRELOADER_BINDED);
    EXPECT_EQ(st.bindings.Get(2).hs, "NA");
    EXPECT_EQ(st.bindings.State(2), BIND_IDLE);
    ASSERT_EQ(st.slotList.RowCount(), 2);
    EXPECT_EQ(st.slotList.CellText(0, COL_NUMBER), "01");
    EXPECT_EQ(st.slotList.CellText(1, COL_NUMBER), "02");
    EXPECT_EQ(Saved("USBPORTINFO", 2), "NA");
    EXPECT_EQ(Saved("THREADSTATUS", 1), "PRELOADER_BINDED");
}

TEST_F(BindingCommandsTest, RowOutsideTheListDoesNothing) {
    Bind(0, "hub\\PORT1");
    Rows(1);
    commands.RemoveTheBind(-1);
    commands.RemoveTheBind(1);
    EXPECT_EQ(st.bindings.Get(0).hs, "hub\\PORT1");
    EXPECT_EQ(Saved("USBPORTINFO", 0), "?") << "nothing saved";
}

TEST_F(BindingCommandsTest, CompactionDropsLsOnlySlotsAndKeepsOrder) {
    Bind(1, "NA", BIND_BROM_BINDED, "hubB\\PORT2");
    Bind(3, "hub\\PORT4");
    Bind(7, "hub\\PORT8", BIND_PRELOADER_BINDED);
    commands.CompactBindings();
    EXPECT_EQ(st.bindings.Get(0).hs, "hub\\PORT4");
    EXPECT_EQ(st.bindings.Get(1).hs, "hub\\PORT8");
    EXPECT_EQ(st.bindings.Get(2).ls, "NA");
    EXPECT_EQ(st.bindings.State(2), BIND_IDLE);
}

TEST_F(BindingCommandsTest, RemoveAllLeavesEveryKeyUnbound) {
    Bind(0, "hub\\PORT1");
    Bind(5, "hub\\PORT6");
    Rows(6);
    st.settings.HasScan = 1;
    commands.RemoveAllBind();
    EXPECT_EQ(st.slotList.RowCount(), 0);
    EXPECT_EQ(st.settings.HasScan, 0u);
    for (int n = 0; n < kSlotCount; ++n) {
        EXPECT_EQ(Saved("USBPORTINFO", n), "NA");
        EXPECT_EQ(Saved("BROMPORTINFO", n), "NA");
        EXPECT_EQ(Saved("COM", n), "NA");
        EXPECT_EQ(Saved("THREADSTATUS", n), "IDLE");
        EXPECT_FALSE(st.slots.rowShown[static_cast<std::size_t>(n)]);
    }
}

TEST_F(BindingCommandsTest, MergeRemovesTheLowerDuplicate) {
    Bind(0, "hub\\PORT1");
    Bind(1, "hub\\PORT5", BIND_PRELOADER_BINDED);
    Bind(2, "hub\\PORT5", BIND_PRELOADER_BINDED);
    Rows(3);
    commands.MergeRepeatBind();
    EXPECT_EQ(st.bindings.Get(1).hs, "hub\\PORT5");
    EXPECT_EQ(st.bindings.Get(1).com, "Port (COM3)") << "the higher one is kept and moves down";
    EXPECT_EQ(st.bindings.Get(2).hs, "NA");
    EXPECT_EQ(st.slotList.RowCount(), 2);
}

TEST_F(BindingCommandsTest, MergeEndsWhenAQualifyingSlotHasNoRow) {
    Bind(4, "hub\\PORT5", BIND_PRELOADER_BINDED);
    Bind(6, "hub\\PORT5", BIND_PRELOADER_BINDED);
    Rows(2);
    commands.MergeRepeatBind();  // must return
    EXPECT_EQ(st.bindings.Get(4).hs, "hub\\PORT5");
    EXPECT_EQ(st.bindings.Get(6).hs, "hub\\PORT5");
}

}  // namespace
}  // namespace quorvel::devices
