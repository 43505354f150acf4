// The udev backend against a mocked sysfs tree. Needs the umockdev preload: each
// test re-runs itself under umockdev-wrapper when it is not already inside one.
// libumockdev is loaded at run time, so the build needs nothing beyond libudev.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <thread>
#include <type_traits>

#include "devices/DeviceMonitor.h"
#include "devices/KernelDrivers.h"
#include "devices/UdevBackend.h"

namespace quorvel::devices {
namespace {

// The few libumockdev calls the tests use.
struct Umockdev {
    void* (*testbedNew)() = nullptr;
    char* (*addDevice)(void*, const char*, const char*, const char*, ...) = nullptr;
    void (*uevent)(void*, const char*, const char*) = nullptr;
    void (*setAttribute)(void*, const char*, const char*, const char*) = nullptr;
    void (*removeDevice)(void*, const char*) = nullptr;
    char* (*sysDir)(void*) = nullptr;
    void (*unref)(void*) = nullptr;
    void (*gfree)(void*) = nullptr;

    bool Load() {
        void* lib = dlopen("libumockdev.so.0", RTLD_NOW | RTLD_GLOBAL);
        const auto sym = [lib](auto& fn, const char* name) {
            fn = lib ? reinterpret_cast<std::remove_reference_t<decltype(fn)>>(dlsym(lib, name)) : nullptr;
            return fn != nullptr;
        };
        return sym(testbedNew, "umockdev_testbed_new") && sym(addDevice, "umockdev_testbed_add_device") &&
               sym(uevent, "umockdev_testbed_uevent") && sym(setAttribute, "umockdev_testbed_set_attribute") &&
               sym(removeDevice, "umockdev_testbed_remove_device") && sym(sysDir, "umockdev_testbed_get_sys_dir") &&
               sym(unref, "g_object_unref") && sym(gfree, "g_free");
    }
};

bool InsideWrapper() {
    const char* preload = std::getenv("LD_PRELOAD");
    return preload && std::string(preload).find("umockdev-preload") != std::string::npos;
}

// Runs the current test in a child under umockdev-wrapper; its exit status.
int RunWrapped() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return -1;
    self[n] = '\0';
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execlp("umockdev-wrapper", "umockdev-wrapper", self, filter.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#define RUN_UNDER_UMOCKDEV()                                                 \
    if (!InsideWrapper()) {                                                  \
        if (std::system("command -v umockdev-wrapper >/dev/null 2>&1") != 0) \
            GTEST_SKIP() << "umockdev-wrapper is not installed";             \
        EXPECT_EQ(RunWrapped(), 0);                                          \
        return;                                                              \
    }                                                                        \
    ASSERT_TRUE(mock.Load()) << "libumockdev.so.0 not found";                \
    tb = mock.testbedNew()

class UdevBackendTest : public ::testing::Test {
protected:
    ~UdevBackendTest() override {
        if (tb) mock.unref(tb);
    }
    std::string Add(const char* subsystem, const char* name, const std::string& parent, const char* devtype,
                    std::vector<std::pair<const char*, const char*>> attrs, const char* driver = nullptr) {
        const char* pp = parent.empty() ? nullptr : parent.c_str();
        char* path = *devtype ? mock.addDevice(tb, subsystem, name, pp, nullptr, "DEVTYPE", devtype, nullptr)
                              : mock.addDevice(tb, subsystem, name, pp, nullptr, nullptr);
        for (const auto& [key, value] : attrs) mock.setAttribute(tb, path, key, value);
        std::string p = path ? path : "";
        mock.gfree(path);
        if (driver) {
            char* sys = mock.sysDir(tb);
            const std::string root = std::string(sys).substr(0, std::string(sys).size() - 4);  // without "/sys"
            mock.gfree(sys);
            const std::string dir = root + "/sys/bus/usb/drivers/" + driver;
            std::system(("mkdir -p '" + dir + "'").c_str());
            [[maybe_unused]] int rc = ::symlink(dir.c_str(), (root + p + "/driver").c_str());
        }
        return p;
    }
    std::string Hub(const std::string& parent, const char* name, const char* devpath, const char* ports) {
        return Add("usb", name, parent, "usb_device",
                   {{"bDeviceClass", "09"},
                    {"maxchild", ports},
                    {"devpath", devpath},
                    {"speed", "480"},
                    {"idVendor", "1a40"},
                    {"idProduct", "0101"}});
    }
    std::string Root(const char* pci, const char* name, const char* version, const char* speed, const char* ports) {
        const std::string controller = Add("pci", pci, "", "", {});
        return Add("usb", name, controller, "usb_device",
                   {{"bDeviceClass", "09"},
                    {"maxchild", ports},
                    {"devpath", "0"},
                    {"version", version},
                    {"speed", speed},
                    {"idVendor", "1d6b"},
                    {"idProduct", speed[0] == '1' ? "0001" : "0002"}});
    }
    // A phone as cdc_acm presents it: control interface (with the serial node, when
    // given) and the data interface, both bound to the driver.
    std::string Phone(const std::string& parent, const char* name, const char* vid, const char* pid,
                      const char* devpath, const char* product, const char* tty, bool cdc = true,
                      const char* driver = "cdc_acm") {
        const std::string usb =
            Add("usb", name, parent, "usb_device",
                {{"idVendor", vid}, {"idProduct", pid}, {"devpath", devpath}, {"product", product}});
        const std::string control = Interface(usb, name, "1.0", cdc ? "02" : "ff", driver);
        if (cdc) Interface(usb, name, "1.1", "0a", driver);
        if (tty) Add("tty", tty, control, "", {});
        return usb;
    }
    std::string Interface(const std::string& usb, const char* name, const char* number, const char* cls,
                          const char* driver) {
        const std::string sysname = std::string(name) + ":" + number;
        return Add("usb", sysname.c_str(), usb, "usb_interface", {{"bInterfaceClass", cls}}, driver);
    }
    // Two controllers: a 2.0 one with a chain of two hubs, and a 1.1 companion.
    void BuildBench() {
        root = Root("0000:00:14.0", "usb1", " 2.00", "480", "2");
        Root("0000:00:1d.0", "usb2", " 1.10", "12", "2");
        hub = Hub(root, "1-1", "1", "4");
        chained = Hub(hub, "1-1.2", "1.2", "4");
        Phone(chained, "1-1.2.1", "0e8d", "2000", "1.2.1", "MT65xx Preloader", "ttyACM0");
        Phone(chained, "1-1.2.3", "0e8d", "0003", "1.2.3", "MT65xx BROM", "ttyACM1");
        Phone(hub, "1-1.3", "1234", "2000", "1.3", "Gadget", "ttyACM2");  // not a preloader
        Phone(hub, "1-1.4", "1782", "4d00", "1.4", "SPRD U2S Diag", "ttyUSB0", false, "option");
    }

    Umockdev mock;
    void* tb = nullptr;
    std::string root, hub, chained;
};

const std::map<std::string, std::string> kAliases{
    {"usbser", "cdc_acm"}, {"wdm_usb", "cdc_acm"}, {"sprdvcom", "option"}};
const std::string kHs = "pci-0000:00:14.0-usbv2";

TEST_F(UdevBackendTest, ABenchGivesOneDevicePerPhoneAtSocketsNamedByPhysicalPath) {
    RUN_UNDER_UMOCKDEV();
    BuildBench();
    UdevBackend backend({}, kAliases);

    // The 1.1 root hub is left out; the others by physical path, never by bus number.
    std::vector<std::string> hubs;
    for (const auto& p : backend.EnumerateHubPorts())
        if (p.port == 1) hubs.push_back(app::FieldText(p.hubId));
    EXPECT_EQ(hubs, (std::vector<std::string>{"USB\\VID_1D6B&PID_0002\\usb1", "USB\\VID_1A40&PID_0101\\1-1",
                                              "USB\\VID_1A40&PID_0101\\1-1.2"}));
    EXPECT_EQ(backend.EnumerateHubPorts().size(), 10u);

    struct Row {
        const char* service;
        std::string id, location, name;
    };
    const Row rows[] = {
        {"wdm_usb", "USB\\VID_0E8D&PID_2000\\1-1.2.1:1.0", kHs + "-0:1.2\\PORT1", "MT65xx Preloader (COM1)"},
        {"wdm_usb", "USB\\VID_0E8D&PID_0003\\1-1.2.3:1.0", kHs + "-0:1.2\\PORT3", "MT65xx BROM (COM2)"},
        {"wdm_usb", "USB\\VID_1234&PID_2000\\1-1.3:1.0", kHs + "-0:1\\PORT3", "Gadget (COM3)"},
        {"sprdvcom", "USB\\VID_1782&PID_4D00\\1-1.4:1.0", kHs + "-0:1\\PORT4", "SPRD U2S Diag (COM101)"},
    };
    std::map<std::string, std::vector<std::string>> ids;
    for (const Row& r : rows) {
        SCOPED_TRACE(r.id);
        ids[r.service].push_back(r.id);
        EXPECT_EQ(LocationIn(backend.BuildPortTable(r.service), r.id), r.location);
        EXPECT_EQ(backend.FriendlyNameOf(r.id), r.name);
    }
    // Never the data half of a CDC pair.
    for (const auto& [service, list] : ids) EXPECT_EQ(backend.ServiceDevices(service), list) << service;
    EXPECT_EQ(backend.SerialNodeOf(101), "/dev/ttyUSB0");

    // The socket map shows the same locations, with what is plugged in.
    const auto sockets = backend.Sockets();
    ASSERT_EQ(sockets.size(), 10u);
    auto at = [&](const std::string& location) {
        const auto r =
            std::find_if(sockets.begin(), sockets.end(), [&](const SocketRow& x) { return x.location == location; });
        return r == sockets.end() ? "?" : r->ids + " " + r->cls + " " + r->driver + " " + r->node + " " + r->com;
    };
    EXPECT_EQ(at(kHs + "-0:1.2\\PORT1"), "0e8d:2000 02 cdc_acm /dev/ttyACM0 COM1");
    EXPECT_EQ(at(kHs + "-0:1.2\\PORT4"), "    ");
    EXPECT_EQ(at(kHs + "-0:1\\PORT2"), "1a40:0101 09   ") << "a hub shows no serial node of its own";

    // Only the vendor's preloader is picked up at start-up.
    const auto pre = backend.EnumeratePreloaderDevices();
    ASSERT_EQ(pre.size(), 1u);
    EXPECT_EQ(app::FieldText(pre[0].friendlyName), "MT65xx Preloader (COM1)");
    EXPECT_EQ(app::FieldText(pre[0].hubPort.hubId), "USB\\VID_1A40&PID_0101\\1-1.2");
    EXPECT_EQ(pre[0].hubPort.port, 1u);
}

TEST_F(UdevBackendTest, LateSerialPortsReusedPortNumbersAndModeSwitchesAsTheyHappen) {
    RUN_UNDER_UMOCKDEV();
    root = Root("0000:00:14.0", "usb1", " 2.00", "480", "2");
    hub = Hub(root, "1-1", "1", "4");
    UdevBackend backend({}, kAliases);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the watcher is listening
    auto changed = [&](std::uint64_t before) {
        for (int i = 0; i < 500 && backend.Changes().Generation() == before; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return backend.Changes().Generation() > before;
    };

    // The interface is bound before its serial node exists.
    auto g = backend.Changes().Generation();
    const std::string a = Phone(hub, "1-1.3", "0e8d", "2000", "1.3", "MT65xx Preloader", nullptr);
    mock.uevent(tb, a.c_str(), "add");
    ASSERT_TRUE(changed(g));
    const std::string idA = "USB\\VID_0E8D&PID_2000\\1-1.3:1.0";
    EXPECT_EQ(backend.ServiceDevices("wdm_usb"), std::vector<std::string>{idA});
    EXPECT_EQ(backend.FriendlyNameOf(idA), "MT65xx Preloader");
    g = backend.Changes().Generation();
    const std::string tty = Add("tty", "ttyACM0", a + "/1-1.3:1.0", "", {});
    mock.uevent(tb, tty.c_str(), "add");
    ASSERT_TRUE(changed(g));
    EXPECT_EQ(backend.FriendlyNameOf(idA), "MT65xx Preloader (COM1)");

    // A leaves; B on socket 4 gets the same node: another ID, its own name, and A's
    // removal still finds the name A had.
    mock.uevent(tb, a.c_str(), "remove");
    mock.removeDevice(tb, tty.c_str());
    mock.removeDevice(tb, a.c_str());
    const std::string b = Phone(hub, "1-1.4", "0e8d", "2000", "1.4", "MT65xx Preloader", "ttyACM0");
    const std::string idB = "USB\\VID_0E8D&PID_2000\\1-1.4:1.0";
    EXPECT_EQ(backend.ServiceDevices("wdm_usb"), std::vector<std::string>{idB});
    EXPECT_EQ(LocationIn(backend.BuildPortTable("wdm_usb"), idB), kHs + "-0:1\\PORT4");
    EXPECT_EQ(backend.FriendlyNameOf(idB), "MT65xx Preloader (COM1)");
    EXPECT_EQ(backend.FriendlyNameOf(idA), "MT65xx Preloader (COM1)");

    // B comes back in download-agent mode on the same socket: a new device.
    mock.setAttribute(tb, b.c_str(), "idProduct", "2001");
    mock.setAttribute(tb, b.c_str(), "product", "MT65xx DA");
    const std::string idDa = "USB\\VID_0E8D&PID_2001\\1-1.4:1.0";
    EXPECT_EQ(backend.ServiceDevices("wdm_usb"), std::vector<std::string>{idDa});
    EXPECT_EQ(backend.FriendlyNameOf(idDa), "MT65xx DA (COM1)");
    EXPECT_TRUE(backend.EnumeratePreloaderDevices().empty());
}

TEST_F(UdevBackendTest, ADriverThatIsInstallableButNotLoadedCountsAsPresent) {
    RUN_UNDER_UMOCKDEV();
    BuildBench();
    char dir[] = "/tmp/quorvel-modules-XXXXXX";
    ASSERT_TRUE(::mkdtemp(dir));
    platform::SysPaths paths;
    paths.modules = dir;
    const std::string release = KernelRelease();
    std::system(("mkdir -p '" + std::string(dir) + "/" + release + "'").c_str());
    UdevBackend backend(paths, {{"sprdvcom", "option_gone"}, {"custom", "usbserial_generic"}});
    EXPECT_FALSE(backend.ServiceExists("sprdvcom"));
    {
        std::ofstream dep(std::string(dir) + "/" + release + "/modules.dep");
        dep << "kernel/drivers/usb/serial/option_gone.ko.zst: kernel/drivers/usb/serial/usbserial.ko.zst\n";
    }
    EXPECT_TRUE(backend.ServiceExists("sprdvcom"));
    EXPECT_EQ(backend.ServiceDevices("sprdvcom"), std::nullopt) << "no device list before it is loaded";
    EXPECT_TRUE(backend.ServiceExists("cdc_acm")) << "loaded";
    EXPECT_FALSE(backend.ServiceExists("custom"));
    std::system(("rm -rf '" + std::string(dir) + "'").c_str());
}

}  // namespace
}  // namespace quorvel::devices
