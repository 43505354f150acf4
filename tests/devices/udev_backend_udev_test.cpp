// The udev backend against a mocked sysfs tree. Needs the umockdev preload: each
// test re-runs itself under umockdev-wrapper when it is not already inside one.
// libumockdev is loaded at run time, so the build needs nothing beyond libudev.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>
#include <type_traits>

#include "devices/UdevBackend.h"

namespace quorvel::devices {
namespace {

// The few libumockdev calls the tests use.
struct Umockdev {
    void* (*testbedNew)() = nullptr;
    char* (*addDevice)(void*, const char*, const char*, const char*, ...) = nullptr;
    void (*uevent)(void*, const char*, const char*) = nullptr;
    void (*setAttribute)(void*, const char*, const char*, const char*) = nullptr;
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
               sym(sysDir, "umockdev_testbed_get_sys_dir") && sym(unref, "g_object_unref") && sym(gfree, "g_free");
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
    // A USB device with VID/PID at `parent`, with one interface bound to `driver`.
    std::string Phone(const std::string& parent, const char* name, const char* pid, const char* devpath,
                      const char* product, const char* tty, const char* driver = "cdc_acm") {
        const std::string usb =
            Add("usb", name, parent, "usb_device",
                {{"idVendor", "0e8d"}, {"idProduct", pid}, {"devpath", devpath}, {"product", product}});
        const std::string iface = std::string(name) + ":1.0";
        const std::string i = Add("usb", iface.c_str(), usb, "usb_interface", {}, driver);
        if (tty) Add("tty", tty, i, "", {});
        return usb;
    }
    void BuildTree() {
        root = Add("usb", "usb1", "", "usb_device",
                   {{"bDeviceClass", "09"}, {"maxchild", "2"}, {"idVendor", "1d6b"}, {"idProduct", "0002"}});
        hub = Add(
            "usb", "1-1", root, "usb_device",
            {{"bDeviceClass", "09"}, {"maxchild", "4"}, {"devpath", "1"}, {"idVendor", "1a40"}, {"idProduct", "0101"}});
        phone = Phone(hub, "1-1.3", "2000", "1.3", "MT65xx Preloader", "ttyACM0");
    }

    Umockdev mock;
    void* tb = nullptr;
    std::string root, hub, phone;
};

TEST_F(UdevBackendTest, ReadsHubsServicesLocationsAndNames) {
    RUN_UNDER_UMOCKDEV();
    BuildTree();
    UdevBackend backend({}, {{"usbser", "cdc_acm"}, {"wdm_usb", "cdc_acm"}, {"sprdvcom", "option"}});

    const auto ports = backend.EnumerateHubPorts();
    ASSERT_EQ(ports.size(), 6u);
    EXPECT_EQ(app::FieldText(ports[0].hubId), "USB\\VID_1D6B&PID_0002\\usb1");
    EXPECT_EQ(app::FieldText(ports[2].hubId), "USB\\VID_1A40&PID_0101\\1-1");
    EXPECT_EQ(ports[5].port, 4u);

    EXPECT_TRUE(backend.ServiceExists("usbser"));
    EXPECT_TRUE(backend.ServiceExists("cdc_acm"));
    EXPECT_FALSE(backend.ServiceExists("sprdvcom"));
    EXPECT_EQ(backend.ServiceDevices("sprdvcom"), std::nullopt);
    const auto ids = backend.ServiceDevices("wdm_usb");
    ASSERT_TRUE(ids);
    EXPECT_EQ(*ids, std::vector<std::string>{"USB\\VID_0E8D&PID_2000\\1-1.3:1.0"});
    const auto table = backend.BuildPortTable("usbser");
    ASSERT_EQ(table.locations.size(), 1u);
    EXPECT_EQ(table.locations[0], "1-1\\PORT3");
    EXPECT_EQ(backend.FriendlyNameOf("USB\\VID_0E8D&PID_2000\\1-1.3:1.0"), "MT65xx Preloader (COM1)");
    EXPECT_EQ(backend.SerialNodeOf(1), "/dev/ttyACM0");

    const auto pre = backend.EnumeratePreloaderDevices();
    ASSERT_EQ(pre.size(), 1u);
    EXPECT_EQ(pre[0].type, 2u);
    EXPECT_EQ(app::FieldText(pre[0].hubPort.hubId), "USB\\VID_1A40&PID_0101\\1-1");
    EXPECT_EQ(pre[0].hubPort.port, 3u);
}

TEST_F(UdevBackendTest, HotPlugIsNoticedAndTheSocketKeepsItsLocation) {
    RUN_UNDER_UMOCKDEV();
    BuildTree();
    UdevBackend backend({}, {{"wdm_usb", "cdc_acm"}});
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the watcher is listening
    const auto before = backend.Changes().Generation();
    const std::string preloader = "USB\\VID_0E8D&PID_2000\\1-1.3:1.0";
    EXPECT_EQ(backend.FriendlyNameOf(preloader), "MT65xx Preloader (COM1)");

    // The phone on port 3 comes back in download-agent mode (the sysfs name is the
    // socket's, so the device node stays), and a second one appears on port 4.
    mock.uevent(tb, phone.c_str(), "remove");
    mock.setAttribute(tb, phone.c_str(), "idProduct", "2001");
    mock.setAttribute(tb, phone.c_str(), "product", "MT65xx DA");
    mock.uevent(tb, phone.c_str(), "add");
    const std::string brom = Phone(hub, "1-1.4", "0003", "1.4", "MT65xx BROM", nullptr);
    mock.uevent(tb, brom.c_str(), "add");
    for (int i = 0; i < 500 && backend.Changes().Generation() == before; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_GT(backend.Changes().Generation(), before);

    const auto table = backend.BuildPortTable("wdm_usb");
    ASSERT_EQ(table.locations.size(), 2u);
    EXPECT_EQ(table.locations[0], "1-1\\PORT3");
    EXPECT_EQ(table.instanceIds[0], "USB\\VID_0E8D&PID_2001\\1-1.3:1.0");
    EXPECT_EQ(table.locations[1], "1-1\\PORT4");
    EXPECT_EQ(backend.FriendlyNameOf(table.instanceIds[0]), "MT65xx DA (COM1)");
    EXPECT_EQ(backend.FriendlyNameOf(table.instanceIds[1]), "MT65xx BROM");  // no serial node
    EXPECT_TRUE(backend.EnumeratePreloaderDevices().empty());
    // The preloader device is gone but keeps its name, so its removal reaches its worker.
    EXPECT_EQ(backend.FriendlyNameOf(preloader), "MT65xx Preloader (COM1)");
}

}  // namespace
}  // namespace quorvel::devices
