#include <gtest/gtest.h>

#include "DeviceTestKit.h"
#include "devices/PortBinding.h"
#include "sim/SimEngines.h"
#include "slots/DownloadManager.h"
#include "station/Messages.h"

namespace quorvel::devices {
namespace {

using namespace app;

const char* const kBrom = "USB\\VID_0E8D&PID_0003\\2-1.1:1.0";
const char* const kPreloader = "USB\\VID_0E8D&PID_2000\\1-1.1:1.0";
const char* const kDa = "USB\\VID_0E8D&PID_2001\\1-1.1:1.0";
const char* const kSprd = "USB\\VID_1782&PID_4D00\\1-1.1:1.0";

class PortBindingTest : public test::UnboundStationTest {
protected:
    void Workers(int n) {
        for (int i = 0; i < n; ++i) {
            HubPortEntry e{};
            e.hubId = "1-1";
            e.port = static_cast<std::uint32_t>(i + 1);
            manager.AddWorker(e);
        }
    }
    static DeviceEvent Event(const std::string& id, const std::string& location, EventKind kind, bool arrived = true,
                             const std::string& name = "Phone (COM5)") {
        return DeviceEvent{id, name, kind, arrived, location};
    }
    static DeviceInfo Mtk(const std::string& id, const std::string& location) {
        return PortBinding::InfoOf(Event(id, location, EventKind::MTK));
    }
    std::string DeviceOf(int slot) { return manager.WorkerAt(slot)->Device().instanceId; }

    test::ClockDriver driver{f.clock};
    test::RecordingWindow window;
    engine::SimPhoneRegistry registry;
    engine::SimEngineFactory engines{st, registry};
    engine::DownloadManager manager{st, window, engines};
    test::Pty pty;
    int probed = 0;
    ComProbe probe{f.clock, [this](int) { return ++probed, pty.Slave(); }};
    PortBinding binding{st, manager, probe, window};
};

TEST_F(PortBindingTest, BromPhoneTakesTheFirstIdleSlotAfterASlotOrderedDelay) {
    Workers(8);
    auto t0 = f.clock.Now();
    EXPECT_TRUE(binding.Bind_MTKDev_LS(Mtk(kBrom, "2-1\\PORT1")));
    EXPECT_EQ(f.clock.Now() - t0, 0);
    EXPECT_EQ(Table(1), std::vector<std::string>{"NA 2-1\\PORT1 BROM_BINDED"});
    EXPECT_EQ(manager.WorkerAt(0)->ThreadIndex(), 0);
    EXPECT_EQ(DeviceOf(0), kBrom);
    EXPECT_FALSE(binding.Bind_MTKDev_LS(Mtk(kBrom, "2-1\\PORT1"))) << "already bound";

    for (int i = 1; i < 5; ++i) Bind(i, "1-9\\PORT" + std::to_string(i), BindState::AllBinded);
    t0 = f.clock.Now();
    EXPECT_TRUE(binding.Bind_MTKDev_LS(Mtk(kBrom, "2-1\\PORT6")));
    EXPECT_EQ(f.clock.Now() - t0, 500);
    EXPECT_EQ(st.bindings.State(5), BindState::BromBinded);
}

TEST_F(PortBindingTest, DaPhoneSkipsAPreloaderBoundSlotAndTakesTheFirstDaBoundOne) {
    Workers(4);
    Bind(0, "1-1\\PORT1", BindState::PreloaderBinded);
    const DeviceInfo da = Mtk(kDa, "1-1\\PORT1");
    EXPECT_FALSE(binding.HasBinded_MTK(da));
    EXPECT_FALSE(binding.Bind_MTKDev_HS(da));  // no slot waits for a DA phone
    EXPECT_EQ(st.bindings.State(0), BindState::PreloaderBinded);

    // The DA-bound slot is chosen, but its worker has no job the phone belongs to (the
    // job that switched it has ended): nothing is bound. Taken during a job: e2e tests.
    Bind(2, "NA", BindState::DaBinded, "2-1\\PORT3");
    EXPECT_FALSE(binding.Bind_MTKDev_HS(da));
    EXPECT_EQ(Table(3),
              (std::vector<std::string>{"1-1\\PORT1 NA PRELOADER_BINDED", "NA NA IDLE", "NA 2-1\\PORT3 DA_BINDED"}));
    EXPECT_EQ(DeviceOf(2), kDa);  // kept, so its removal finds the worker

    // The slot whose phone was on this very socket in BROM mode (one hub for both speeds)
    // goes before the first by number: two phones switched at once are not swapped.
    Bind(3, "NA", BindState::DaBinded, "1-1\\PORT1");
    EXPECT_FALSE(binding.Bind_MTKDev_HS(da));
    EXPECT_EQ(DeviceOf(3), kDa);
}

TEST_F(PortBindingTest, BoundSocketsFeedTheirSlotWithoutChangingOrWithBusy) {
    Workers(4);
    Bind(3, "1-1\\PORT4", BindState::AllBinded, "2-1\\PORT4");
    const struct {
        const char* id;
        const char* location;
        app::BindState before;
        bool fed;
        app::BindState after;
    } arrivals[] = {
        {kPreloader, "1-1\\PORT4", BindState::AllBinded, true, BindState::AllBinded},
        {kBrom, "2-1\\PORT4", BindState::AllBinded, true, BindState::AllBinded},
        // A DA phone outside a job is handled by being dropped.
        {kDa, "1-1\\PORT4", BindState::AllBinded, true, BindState::AllBinded},
        {kPreloader, "1-1\\PORT4", BindState::Busy, false, BindState::Busy},  // a busy slot's socket is ignored
    };
    for (const auto& a : arrivals) {
        st.bindings.SetState(3, a.before);
        EXPECT_EQ(binding.HasBinded_MTK(Mtk(a.id, a.location)), a.fed) << a.id;
        EXPECT_EQ(st.bindings.State(3), a.after) << a.id;
    }
    EXPECT_EQ(manager.WorkerAt(3)->ThreadIndex(), 3);
    EXPECT_FALSE(binding.Bind_MTKDev_HS(Mtk(kPreloader, "1-1\\PORT4")));
}

TEST_F(PortBindingTest, SlotsWithoutAWorkerAreNeverChosenAndStoredOnesAreNotFed) {
    Workers(2);
    Bind(0, "1-1\\PORT1", BindState::AllBinded);
    Bind(5, "1-1\\PORT6", BindState::AllBinded);
    binding.OnDeviceEvent(Event(kSprd, "1-1\\PORT2", EventKind::SPRD));
    EXPECT_EQ(st.bindings.Get(1).hs, "1-1\\PORT2");
    // Its next arrival is fed to its slot; stopped, the slot is not made BUSY.
    binding.OnDeviceEvent(Event(kSprd, "1-1\\PORT2", EventKind::SPRD));
    EXPECT_EQ(st.bindings.State(1), BindState::AllBinded);
    EXPECT_EQ(manager.WorkerAt(1)->LastNotifyCode(), static_cast<std::uint32_t>(EventKind::SPRD));
    // Slot 2 is idle but has no worker: the phone is not served, the table is still saved.
    binding.OnDeviceEvent(Event(kSprd, "1-1\\PORT3", EventKind::SPRD));
    for (int i = 2; i < kSlotCount; ++i) EXPECT_NE(st.bindings.Get(i).hs, "1-1\\PORT3");
    EXPECT_EQ(Saved("USBPORTINFO", 2), "NA");
    // A stored binding beyond the workers keeps its state.
    binding.OnDeviceEvent(Event(kSprd, "1-1\\PORT6", EventKind::SPRD));
    EXPECT_EQ(st.bindings.State(5), BindState::AllBinded);
    EXPECT_FALSE(binding.Bind_MTKDev_LS(Mtk(kBrom, "2-1\\PORT9")));
    EXPECT_EQ(st.bindings.State(2), BindState::Idle);
}

TEST_F(PortBindingTest, MtkRemovalStopsAnIdleRunAfterOneSecondSerialRemovalDoesNot) {
    Workers(2);
    st.stationRunning = true;
    const auto t0 = f.clock.Now();
    binding.OnDeviceEvent(Event(kSprd, "1-1\\PORT1", EventKind::SPRD, false));
    EXPECT_TRUE(window.Sent().empty());
    binding.OnDeviceEvent(Event(kPreloader, "1-1\\PORT1", EventKind::MTK, false));
    using Msg = test::RecordingWindow::Msg;
    EXPECT_EQ(window.Sent(), std::vector<Msg>{"command 1019 auto"});
    EXPECT_TRUE(window.Posted().empty());
    EXPECT_EQ(f.clock.Now() - t0, 50 + 1000 + 50);
    // A removal that matches no worker is ignored. (A gone phone's reused port number:
    // sprd_port_number_reused.txt.)
    EXPECT_FALSE(binding.SignalRemoval(PortBinding::InfoOf(Event(kSprd, "", EventKind::SPRD, false, "Other (COM6)"))));
}

TEST_F(PortBindingTest, UnknownDevicesUnlocatedOnesAndUnopenableCfgPortsAreDropped) {
    Workers(2);
    // Nowhere to bind it: dropped before probing, for every kind.
    for (EventKind kind : {EventKind::MTK, EventKind::SPRD, EventKind::CFG})
        binding.OnDeviceEvent(Event(kPreloader, "", kind));
    EXPECT_EQ(probed, 0);
    EXPECT_EQ(Table(2), (std::vector<std::string>{"NA NA IDLE", "NA NA IDLE"}));
    binding.OnDeviceEvent(Event(kSprd, "1-1\\PORT1", EventKind::MTK));  // class OTHER
    EXPECT_EQ(st.bindings.State(0), BindState::Idle);
    EXPECT_EQ(Saved("THREADSTATUS", 0), "?") << "nothing saved";
    binding.OnDeviceEvent(Event(kPreloader, "1-1\\PORT1", EventKind::CFG, true, "Phone (C)"));  // no port name
    EXPECT_EQ(st.bindings.State(0), BindState::Idle);
    binding.OnDeviceEvent(Event(kPreloader, "1-1\\PORT1", EventKind::CFG));
    EXPECT_EQ(st.bindings.State(0), BindState::AllBinded);
    EXPECT_EQ(DeviceOf(0), kPreloader);
}

}  // namespace
}  // namespace quorvel::devices
