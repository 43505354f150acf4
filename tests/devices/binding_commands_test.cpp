// What the menu commands do to a whole station's table: tests/scenarios/binding_commands.txt.
#include <gtest/gtest.h>

#include "DeviceTestKit.h"
#include "devices/BindingCommands.h"

namespace quorvel::devices {
namespace {

using namespace app;
using Rows = std::vector<std::string>;
using BindingCommandsTest = test::UnboundStationTest;

// A slot bound only by its boot-ROM location cannot be set up from the settings file.
TEST_F(BindingCommandsTest, CompactionDropsLsOnlySlotsAndKeepsOrder) {
    BindingCommands commands{st};
    Bind(1, "NA", BindState::BromBinded, "hubB\\PORT2");
    Bind(3, "hub\\PORT4");
    Bind(7, "hub\\PORT8", BindState::PreloaderBinded);
    commands.RemoveTheBind(-1);  // no row selected: nothing happens
    EXPECT_EQ(st.bindings.State(1), BindState::BromBinded);
    commands.CompactBindings();
    EXPECT_EQ(Table(3), (Rows{"hub\\PORT4 NA ALL_BINDED", "hub\\PORT8 NA PRELOADER_BINDED", "NA NA IDLE"}));
}

}  // namespace
}  // namespace quorvel::devices
