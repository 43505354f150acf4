#pragma once
// The option values of CommonSetting.ini. Written by SettingsLoad on the station
// thread before any worker or monitor thread exists; read without a lock afterwards.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace quorvel::app {

struct MemoryTestSettings {  // section MEMORYTEST, in the order handed to the engine
    std::uint32_t DataBus = 1, AddrBus = 1, PatternTest = 1, IncDecTest = 1, PatternNum = 1;
};

struct Settings {
    // section COMMON
    std::uint32_t NVDATAZIP = 0;
    std::uint32_t EnableDebug = 0;
    std::uint32_t CleanBinRegionData = 0;
    std::uint32_t MTK_UPGRADE_BK_NV = 0;
    std::uint32_t CheckVersion = 1;
    std::uint32_t CheckSum = 1;
    std::uint32_t BromLog = 0;
    std::uint32_t FlashCheckSum = 0;
    std::uint32_t ForceWatchdogReset = 0;
    std::uint32_t EnableAutoPulling = 0;
    std::uint32_t SleepTimeRestart = 10000;  // ms
    std::uint32_t Battery = 1;
    std::string DA_BR, DA_PL;
    std::string MTK_BK_NVRAM_FILENAME, MTK_BK_PROINFO_FILENAME;
    std::vector<std::string> ServiceNameList;  // from MTK_SERVICE_NAME
    std::uint32_t HasScan = 0;
    std::uint32_t BackupandRestore = 0;
    MemoryTestSettings memoryTest;

    // section BENCH: which device and engine backend the station runs on.
    bool simulatedBench = false;
    std::uint32_t benchHubs = 2, benchSocketsPerHub = 8;  // the simulated bench's sockets
    bool benchAuto = false;                               // phones arrive by themselves
    std::string benchScenario;                            // a scenario file played from the start, if given
    bool benchNativeSprd = false;  // NativeSprd=1: SPRD phones on quorvel-sprd-phone, flashed by quorvel-sprd-flash
    // Driver service name -> kernel driver ("ServiceDrivers=usbser:cdc_acm,...").
    std::map<std::string, std::string> serviceDrivers{
        {"usbser", "cdc_acm"}, {"wdm_usb", "cdc_acm"}, {"sprdvcom", "option"}};

    // section UI
    bool soundCue = false;  // Sound=1: a tone when a slot's job ends, one for pass, one for fail
};

}  // namespace quorvel::app
