#pragma once
// USB device trees shaped like real benches, on umockdev. Needs the umockdev preload:
// a test re-runs itself under umockdev-wrapper when it is not already inside one
// (RUN_UNDER_UMOCKDEV). libumockdev is loaded at run time, so the build needs nothing
// beyond libudev. Where umockdev is missing the tests skip, except on CI, where that
// is a failure: the real-bench tests must not silently stop running there.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "DeviceTestKit.h"

namespace quorvel::test {

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

inline bool InsideWrapper() {
    const char* preload = std::getenv("LD_PRELOAD");
    return preload && std::string(preload).find("umockdev-preload") != std::string::npos;
}

// Runs the current test in a child under umockdev-wrapper; its exit status.
inline int RunWrapped() {
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

inline bool UmockdevInstalled() {
    return std::system("command -v umockdev-wrapper >/dev/null 2>&1") == 0;
}

#define RUN_UNDER_UMOCKDEV()                                                      \
    if (!::quorvel::test::InsideWrapper()) {                                      \
        if (!::quorvel::test::UmockdevInstalled()) {                              \
            if (std::getenv("CI")) FAIL() << "umockdev-wrapper is not installed"; \
            GTEST_SKIP() << "umockdev-wrapper is not installed";                  \
        }                                                                         \
        EXPECT_EQ(::quorvel::test::RunWrapped(), 0);                              \
        return;                                                                   \
    }                                                                             \
    ASSERT_TRUE(mock.Load()) << "libumockdev.so.0 not found";                     \
    tb = mock.testbedNew()

// Builds the tree: controllers, root hubs, hubs and phones as the kernel shows them.
// One thread at a time.
class UmockdevTree {
public:
    ~UmockdevTree() {
        if (tb) mock.unref(tb);
    }
    // The testbed's root (its "/sys" is below it).
    std::string Root() {
        char* sys = mock.sysDir(tb);
        const std::string s(sys);
        mock.gfree(sys);
        return s.substr(0, s.size() - 4);
    }
    // A kernel driver that is loaded: it has its folder under /sys/bus/usb/drivers.
    std::string LoadDriver(const char* driver) {
        const std::string dir = Root() + "/sys/bus/usb/drivers/" + driver;
        [[maybe_unused]] int rc = std::system(("mkdir -p '" + dir + "'").c_str());
        return dir;
    }
    std::string Add(const char* subsystem, const char* name, const std::string& parent, const char* devtype,
                    std::vector<std::pair<const char*, const char*>> attrs, const char* driver = nullptr) {
        const char* pp = parent.empty() ? nullptr : parent.c_str();
        // umockdev announces a device as it adds it; the driver is bound first, so that a
        // station reading the device at once never sees it unbound. (A real kernel can show
        // it so for a moment: the station's handling of that is not what this tree tests.)
        const std::string link = Root() + parent + "/" + name + "/driver";
        if (driver && !parent.empty()) {
            std::filesystem::create_directories(Root() + parent + "/" + name);
            ::unlink(link.c_str());
            if (::symlink(LoadDriver(driver).c_str(), link.c_str()) != 0) ADD_FAILURE() << link;
        }
        char* path = *devtype ? mock.addDevice(tb, subsystem, name, pp, nullptr, "DEVTYPE", devtype, nullptr)
                              : mock.addDevice(tb, subsystem, name, pp, nullptr, nullptr);
        for (const auto& [key, value] : attrs) mock.setAttribute(tb, path, key, value);
        std::string p = path ? path : "";
        mock.gfree(path);
        if (driver && p + "/driver" != link.substr(Root().size()) &&
            ::symlink(LoadDriver(driver).c_str(), (Root() + p + "/driver").c_str()) != 0)
            ADD_FAILURE() << p;
        return p;
    }
    // A root hub on its own host controller.
    std::string RootHub(const char* pci, const char* name, const char* version, const char* speed, const char* ports) {
        return Add("usb", name, Add("pci", pci, "", "", {}), "usb_device",
                   {{"bDeviceClass", "09"},
                    {"maxchild", ports},
                    {"devpath", "0"},
                    {"version", version},
                    {"speed", speed},
                    {"idVendor", "1d6b"},
                    {"idProduct", speed[0] == '1' ? "0001" : "0002"}});
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
    // A phone as cdc_acm presents it: control interface (with the serial node, when
    // given) and the data interface, both bound to the driver. `cdc` false: one
    // vendor-class interface, as option binds it.
    std::string Phone(const std::string& parent, const char* name, const char* vid, const char* pid,
                      const char* devpath, const char* product, const char* tty, bool cdc = true,
                      const char* driver = "cdc_acm") {
        const std::string usb =
            Add("usb", name, parent, "usb_device",
                {{"idVendor", vid}, {"idProduct", pid}, {"devpath", devpath}, {"product", product}});
        const std::string control = Interface(usb, name, "1.0", cdc ? "02" : "ff", driver);
        if (cdc) Interface(usb, name, "1.1", "0a", driver);
        if (tty) Tty(control, tty);
        return usb;
    }
    std::string Interface(const std::string& usb, const char* name, const char* number, const char* cls,
                          const char* driver) {
        const std::string sysname = std::string(name) + ":" + number;
        return Add("usb", sysname.c_str(), usb, "usb_interface", {{"bInterfaceClass", cls}}, driver);
    }
    // A serial port below an interface. With `nodes` set, its node there is a
    // pseudo-terminal, so a probe opens a real terminal. (umockdev's own /dev cannot
    // serve that: its realpath overruns on a node linked out of the testbed, and
    // each failed open of a /dev path leaks a slot of its descriptor table.)
    std::string Tty(const std::string& parent, const char* name) {
        char* path = mock.addDevice(tb, "tty", name, parent.c_str(), nullptr, "DEVNAME",
                                    (std::string("/dev/") + name).c_str(), nullptr);
        std::string p = path ? path : "";
        mock.gfree(path);
        if (!nodes.empty()) {
            const std::string node = nodes + "/" + name;
            auto& pty = ptys_[node];
            pty = std::make_unique<Pty>();
            ::unlink(node.c_str());
            [[maybe_unused]] int rc = ::symlink(pty->Slave().c_str(), node.c_str());
        }
        return p;
    }
    // A device and everything below it, parents first.
    std::vector<std::string> Tree(const std::string& syspath) {
        const std::string root = Root();
        FILE* p = ::popen(("find '" + root + syspath + "' -name uevent -printf '%h\\n' | sort").c_str(), "r");
        std::vector<std::string> paths;
        char line[4096];
        while (p && std::fgets(line, sizeof line, p))
            paths.emplace_back(line + root.size(), std::strlen(line) - root.size() - 1);
        if (p) ::pclose(p);
        return paths;
    }
    // Announces a device and everything below it, parents first, as the kernel does.
    void Announce(const std::string& syspath) {
        for (const auto& d : Tree(syspath)) mock.uevent(tb, d.c_str(), "add");
    }
    // The device leaves, with everything below it and its serial nodes.
    void Unplug(const std::string& syspath) {
        auto tree = Tree(syspath);
        std::reverse(tree.begin(), tree.end());
        for (const auto& d : tree) {
            mock.removeDevice(tb, d.c_str());
            const std::string name = d.substr(d.rfind('/') + 1);
            if (!nodes.empty() && name.rfind("tty", 0) == 0) {
                ::unlink((nodes + "/" + name).c_str());
                ptys_.erase(nodes + "/" + name);
            }
        }
        // umockdev announces only devices that exist, and a removal announced before
        // the tree is gone may be read as "still there": the hub it left says it.
        mock.uevent(tb, syspath.substr(0, syspath.rfind('/')).c_str(), "change");
    }

    Umockdev mock;
    void* tb = nullptr;
    std::string nodes;                                  // where serial nodes are made; none when empty
    std::map<std::string, std::unique_ptr<Pty>> ptys_;  // by node
};

class UmockdevBench : public ::testing::Test, public UmockdevTree {};

}  // namespace quorvel::test
