#include <gtest/gtest.h>

#include "DeviceTestKit.h"
#include "devices/BindingCommands.h"

namespace quorvel::devices {
namespace {

using namespace app;
using Rows = std::vector<std::string>;

class BindingCommandsTest : public test::UnboundStationTest {
protected:
    void AddRows(int n) {
        for (int r = 0; r < n; ++r) st.slotList.InsertRow("row" + std::to_string(r));
    }
    BindingCommands commands{st};
};

TEST_F(BindingCommandsTest, RemovingAMiddleBindingMovesTheNextOneDown) {
    Bind(0, "hub\\PORT1");
    Bind(1, "hub\\PORT2");
    Bind(2, "hub\\PORT3", BindState::PreloaderBinded);
    AddRows(3);
    commands.RemoveTheBind(-1);  // rows outside the list: nothing happens
    commands.RemoveTheBind(3);
    EXPECT_EQ(Saved("USBPORTINFO", 0), "?") << "nothing saved";
    commands.RemoveTheBind(1);
    EXPECT_EQ(Table(3), (Rows{"hub\\PORT1 NA ALL_BINDED", "hub\\PORT3 NA PRELOADER_BINDED", "NA NA IDLE"}));
    EXPECT_EQ(st.bindings.Get(1).com, "Port (COM3)");
    ASSERT_EQ(st.slotList.RowCount(), 2);
    EXPECT_EQ(st.slotList.CellText(0, COL_NUMBER), "01");
    EXPECT_EQ(st.slotList.CellText(1, COL_NUMBER), "02");
    EXPECT_EQ(Saved("USBPORTINFO", 2), "NA");
    EXPECT_EQ(Saved("THREADSTATUS", 1), "PRELOADER_BINDED");
}

TEST_F(BindingCommandsTest, CompactionDropsLsOnlySlotsAndKeepsOrder) {
    Bind(1, "NA", BindState::BromBinded, "hubB\\PORT2");
    Bind(3, "hub\\PORT4");
    Bind(7, "hub\\PORT8", BindState::PreloaderBinded);
    commands.CompactBindings();
    EXPECT_EQ(Table(3), (Rows{"hub\\PORT4 NA ALL_BINDED", "hub\\PORT8 NA PRELOADER_BINDED", "NA NA IDLE"}));
}

TEST_F(BindingCommandsTest, RemoveAllLeavesEveryKeyUnbound) {
    Bind(0, "hub\\PORT1");
    Bind(5, "hub\\PORT6");
    AddRows(6);
    st.settings.HasScan = 1;
    commands.RemoveAllBind();
    EXPECT_EQ(st.slotList.RowCount(), 0);
    EXPECT_EQ(st.settings.HasScan, 0u);
    for (int n = 0; n < kSlotCount; ++n) {
        for (const char* section : {"USBPORTINFO", "BROMPORTINFO", "COM"}) EXPECT_EQ(Saved(section, n), "NA");
        EXPECT_EQ(Saved("THREADSTATUS", n), "IDLE");
        EXPECT_FALSE(st.slots.rowShown[static_cast<std::size_t>(n)]);
    }
}

TEST_F(BindingCommandsTest, MergeRemovesTheLowerDuplicateAndEndsAtASlotWithoutARow) {
    Bind(0, "hub\\PORT1");
    Bind(1, "hub\\PORT5", BindState::PreloaderBinded);
    Bind(2, "hub\\PORT5", BindState::PreloaderBinded);
    Bind(4, "hub\\PORT9", BindState::PreloaderBinded);  // a pair without rows: kept
    Bind(6, "hub\\PORT9", BindState::PreloaderBinded);
    AddRows(3);
    commands.MergeRepeatBind();  // must return
    EXPECT_EQ(Table(4), (Rows{"hub\\PORT1 NA ALL_BINDED", "hub\\PORT5 NA PRELOADER_BINDED",
                              "hub\\PORT9 NA PRELOADER_BINDED", "hub\\PORT9 NA PRELOADER_BINDED"}));
    EXPECT_EQ(st.bindings.Get(1).com, "Port (COM3)") << "the higher one is kept and moves down";
    EXPECT_EQ(st.slotList.RowCount(), 2);
}

}  // namespace
}  // namespace quorvel::devices
