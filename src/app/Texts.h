#pragma once
// Every text the station shows, in one table. A LangText is a Chinese/English pair
// chosen by the language rule; a plain string exists in one language only and is
// shown as it is. Texts are UTF-8.

#include "app/Language.h"

namespace quorvel::app::texts {

// ---- start-up and settings ----
inline constexpr LangText kProgramRunning{"程序已经启动!", "Program is running!"};
inline constexpr const char* kCreateConfigFolderFailed = "创建Config文件夹失败！";
inline constexpr const char* kCreateLogFolderFailed = "创建Log文件夹失败！";
inline constexpr const char* kRebootTool = "Please Reboot the Tool...";
inline constexpr const char* kConfigFileMissingFormat = "the config file path is %s,The last error code: %d";
inline constexpr LangText kConfigReadFailed{"配置文件读取失败！", "Failed to read configuration file!"};
inline constexpr LangText kSoftwarePath{"软件路径：", "Software Path:"};

// DownloadType display names, by value 0..11.
inline constexpr LangText kDownloadTypeNames[12] = {
    {"格式化下载（清除NV）", "FormatAll and Download"},
    {"固件升级", "Firmware Upgrade"},
    {"仅格式化", "Format All Only"},
    {"备份恢复下载", "Backup and Recovery Download"},
    {"内存测试", "Memory Test"},
    {"格式化下载（清除NV）", "FormatAll and Download"},
    {"备份标准NV", "Backup NV Only"},
    {"恢复标准NV", "Restore Standard NV"},
    {"仅下载操作（不格式化）", "Download Only(not format)"},
    {"仅写熔丝操作", "Write Eufse Only"},
    {"仅读熔丝信息", "Read  Eufse Only"},
    {"分区回读", "Read Back"},
};

// ---- console window ----
inline constexpr const char* kTitleVersionFormat = "Quorvel, Ver %s; ";
inline constexpr const char* kTitleVersion = "3.1707.28.14";
inline constexpr const char* kTitleCompilerFormat = "Compiler: %s";
inline constexpr const char* kTitleDateFormat = "Compiled Date: %s";
inline constexpr const char* kTitleDate = "(2017/07/28 14:32:28)";
inline constexpr const char* kSimulationTitleSuffix = " [SIMULATED BENCH]";
inline constexpr LangText kOperationArea{"操作区", "Operation Area"};
inline constexpr LangText kTotalLabel{"总数：", "Total:"};
inline constexpr LangText kFailureLabel{"失败数：", "Failure:"};
inline constexpr LangText kPassRateLabel{"通过率：", "P Rate:"};
inline constexpr LangText kStartTip{"开始", "Start"};
inline constexpr LangText kStopTip{"停止", "Stop"};
inline constexpr LangText kSettingsTip{"设置", "Settings"};
inline constexpr LangText kHelpTip{"帮助", "Help"};
inline constexpr LangText kSlotColumns[6] = {
    {"序号", "No."},           {"设备信息", "Device Information"}, {"下载进度", "Download Progress"},
    {"时间统计", "Timer"},     {"通讯状态", "Result"},             {"绑定", "Binded"},
};
inline constexpr const char* kEfuseEnable = "EFUSE Enable!";
inline constexpr const char* kEfuseDisable = "EFUSE Disable!";
inline constexpr LangText kWaitForThreads{"有线程正在下载中，请稍等！",
                                          "At least one thread is running, Please wait for a moment!"};
inline constexpr LangText kSelectScatterFirst{"请先选择MTK Scatter文件！", "Please select MTK Scatter file first!"};
inline constexpr LangText kSelectPacFirst{"请先选择pac文件！", "Please select SPRD pac file first!"};
inline constexpr LangText kSelectCfgFirst{"请先选择MTK CFG文件！", "Please select MTK CFG file first!"};
inline constexpr LangText kMenuRemoveBind{"清除当前绑定", "Remove the Bind"};
inline constexpr LangText kMenuRemoveAllBind{"清除所有绑定", "Remove All Bind"};
inline constexpr LangText kMenuMergeRepeatBind{"合并重复绑定", "Merge Repeat Bind"};
inline constexpr LangText kMenuRemoveStatistics{"清除统计", "Remove Statistics"};

// ---- operator dialogs ----
inline constexpr LangText kSettingsTitle{"设置", "Settings"};
inline constexpr LangText kSelectPathLabel{"请选择升级文件路径：", "Please select file path for upgrading!"};
inline constexpr LangText kLoadButton{"加载", "Load"};
inline constexpr LangText kConfirmButton{"确认", "Confirm"};
inline constexpr LangText kCancelButton{"取消", "Cancel"};
inline constexpr LangText kSelectFolderFirst{"请选择升级文件夹", "Please select folder for upgrading!"};
inline constexpr const char* kFormatAllWarning = "The FormatAll mode will clear NV data";
inline constexpr LangText kScatterOperations[4] = {
    {"1:升级下载", "1:Firmware Upgrade"},
    {"2:全擦下载(清除NV)", "2:FormatAll and Download"},
    {"3:备份恢复下载", "3:Backup and Recovery Download"},
    {"4:保留用户数据升级", "4:Download only, reserve userdata"},
};
inline constexpr LangText kCfgOperations[2] = {
    {"1:升级下载", "1:Firmware Upgrade"},
    {"3:备份恢复下载", "3:Backup and Recovery Download"},
};
inline constexpr LangText kLanguageGroup{"语言", "Language"};
inline constexpr const char* kLanguageChinese = "中文";
inline constexpr const char* kLanguageEnglish = "ENGLISH";
inline constexpr const char* kLanguageAuto = "AUTO";

// ---- engine, workers and slot display ----

// ---- firmware packages ----

// ---- devices and binding ----

}  // namespace quorvel::app::texts
