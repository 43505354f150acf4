#pragma once
// Every text the station shows, in one table. A LangText is a Chinese/English pair
// chosen by the language rule; a plain string exists in one language only and is
// shown as it is. Texts are UTF-8.

#include "station/Language.h"

namespace quorvel::app::texts {

// ---- start-up and settings ----
inline constexpr LangText kProgramRunning{"程序已经启动!", "Program is running!"};
inline constexpr const char* kCreateConfigFolderFailed = "创建Config文件夹失败！";
inline constexpr const char* kCreateLogFolderFailed = "创建Log文件夹失败！";
inline constexpr const char* kRebootTool = "Please Reboot the Tool...";
inline constexpr const char* kConfigFileMissingFormat = "the config file path is %s,The last error code: %d";
inline constexpr LangText kConfigReadFailed{"配置文件读取失败！", "Failed to read configuration file!"};
// Said once per file when a settings or counter file cannot be written; %s the path, %s the reason.
inline constexpr const char* kFileWriteFailedFormat = "Cannot write %s (%s); it is left as it was.";
// Counters and history on a failing disk: %s the reason.
inline constexpr const char* kSavingFailedFormat =
    "Counts and history are not being saved (%s): the station keeps them and retries.";
inline constexpr const char* kSavingResumed = "Counts and history are saved again.";
// At close: %zu jobs and counter saves still held, %s the reason.
inline constexpr const char* kUnsavedAtCloseFormat = "%zu writes of counts and history could not be saved (%s).";
// At start-up: %s the job id, %d the slot (1-based), %s its result.
inline constexpr const char* kUncountedJobFormat =
    "Job %s (slot %d, %s) is in the history but was not counted: the station ended between the two. "
    "It is counted now.";
// The single-instance lock: %s the place, %s the reason, %s the place used instead.
inline constexpr const char* kLockFallbackFormat = "Cannot use the lock file %s (%s); using %s instead.";
inline constexpr const char* kLockFailedFormat = "Cannot take the single-instance lock %s (%s).";
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

// ---- reporting to a broker (the notice pane; never the password) ----
inline constexpr const char* kReportConnectedFormat = "Reporting to %s as %s.";
inline constexpr const char* kReportRefusedFormat = "The broker %s refused the station: %s.";
inline constexpr const char* kReportUnreachableFormat = "The broker %s cannot be reached (%s); trying again.";

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
    {"序号", "No."},
    {"设备信息", "Device Information"},
    {"下载进度", "Download Progress"},
    {"时间统计", "Timer"},
    {"通讯状态", "Result"},
    {"绑定", "Binded"},
};
inline constexpr const char* kEfuseEnable = "EFUSE Enable!";
inline constexpr const char* kEfuseDisable = "EFUSE Disable!";
inline constexpr LangText kWaitForThreads{"有线程正在下载中，请稍等！",
                                          "At least one thread is running, Please wait for a moment!"};
inline constexpr LangText kSelectScatterFirst{"请先选择MTK Scatter文件！", "Please select MTK Scatter file first!"};
inline constexpr LangText kSelectPacFirst{"请先选择pac文件！", "Please select SPRD pac file first!"};
inline constexpr LangText kSelectCfgFirst{"请先选择MTK CFG文件！", "Please select MTK CFG file first!"};
// The notice of a Start without a package: it runs, as the operator asked, but says why no phone is flashed.
inline constexpr LangText kNoPackageNotice{
    "未选择升级文件：手机会被绑定，但没有可下载的内容。请停止，在设置中选择升级文件后再开始。",
    "No package selected: phones are bound, but there is nothing to download to them. Stop, choose a "
    "package in Settings and start again."};
inline constexpr LangText kMenuRemoveBind{"清除当前绑定", "Remove the Bind"};
inline constexpr LangText kMenuRemoveAllBind{"清除所有绑定", "Remove All Bind"};
inline constexpr LangText kMenuMergeRepeatBind{"合并重复绑定", "Merge Repeat Bind"};
inline constexpr LangText kMenuRemoveStatistics{"清除统计", "Remove Statistics"};
inline constexpr LangText kMenuBenchView{"工位视图", "Bench view"};
inline constexpr LangText kMenuHistory{"历史记录...", "History..."};
// The slot's history window. %s: the slot's row number.
inline constexpr LangText kHistoryTitle{"槽位 %s 今天的记录", "Slot %s today"};
inline constexpr LangText kHistoryColumns[5]{{"结束时间", "Ended"},
                                             {"结果", "Result"},
                                             {"用时", "Time"},
                                             {"端口", "Port"},
                                             {"失败步骤和原因", "Step and error"}};
inline constexpr LangText kHistoryEmpty{"今天没有记录", "No jobs today"};
// Closing while phones are flashed. %s: the busy slots' row numbers.
inline constexpr LangText kCloseWhileBusy{
    "仍在下载：槽位 %s。\n现在关闭会中断下载，手机可能无法使用。\n仍然关闭吗？",
    "Still downloading: slot %s.\nClosing now cuts these downloads short and may leave the phones "
    "unusable.\nClose anyway?"};

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
// Slot row texts (English only).
inline constexpr const char* kOngoing = "Ongoing";
inline constexpr const char* kResultPass = "PASS";
inline constexpr const char* kResultFail = "FAIL";
inline constexpr const char* kResultOnSwitch = "OnSwith";
inline constexpr const char* kBarPassed = "Passed";
inline constexpr const char* kBarFailed = "Failed";
inline constexpr const char* kNoDevice = "NULL";
// After a phone's name in the Device column: it came while its slot was still busy.
inline constexpr LangText kNotServedSlotBusy{"：未下载，槽位仍在忙，请重新插入",
                                             ": not served, the slot was still busy; plug it in again"};
// Status texts the MTK engines report and the slot display looks for.
inline constexpr LangText kStatusFormatting{"格式化...", "Formating..."};
inline constexpr LangText kStatusEnterMeta{"进入Meta模式...", "Enter meta mode..."};
inline constexpr LangText kStatusSwitchDa{"端口切换完成...", "Switch DA Port Success..."};
inline constexpr LangText kStatusBindIndex{"端口线程绑定完成...", "Bind Index and Port Success..."};
inline constexpr LangText kStatusDownloadComplete{"下载完成!", "Download Completely!"};
inline constexpr LangText kStatusMemoryTesting{"内存检测中...", "Memory Testing!..."};
// The restart notice after a passed MTK job.
inline constexpr LangText kPhoneRestarting{"手机正在重启中，请稍等！",
                                           "The phone is restarting, Please wait for a moment!"};
inline constexpr LangText kPhoneRestarted{"手机重启完成，请拔出手机！",
                                          "The phone has finished restart, Please move the phone!"};
// SPRD step names by step number (English only).
inline constexpr const char* kSprdStepNames[14] = {
    "Waiting",       "Checking baudrate", "Connecting",     "Erasing flash",    "Downloading...",
    "Reading Flash", "Reseting",          "Read Chip Type", "Read NV Item",     "Change Baud",
    "Finish",        "Unplugged",         "Paused",         "Enumerating port",
};
inline constexpr const char* kPreLoadFilesFailed = "PreLoadFiles failed,please check scatter file or DA files";
// The engine program's own reason for failing a package check: platform, operation
// ("--preload", "--verify"), program and reason.
inline constexpr const char* kEngineCheckFailedFormat = "%s engine program %s failed (%s): %s";
// What the simulated engines report besides the texts above.
inline constexpr LangText kSimDownloading{"下载中...", "Downloading..."};
inline constexpr LangText kSimFailed{"下载失败!", "Download failed!"};
inline constexpr LangText kSimCancelled{"下载已取消!", "Download cancelled!"};
// Why a job failed where its engine gave no reason (English only, as the engines' own
// reasons and step names are): the history and a failed row's tooltip show them.
inline constexpr const char* kReasonEngineGaveNone = "the engine reported a failure without a reason";
inline constexpr const char* kReasonCancelled = "cancelled by the station";
inline constexpr const char* kReasonUnplugged = "the phone was disconnected";
inline constexpr const char* kReasonNoSwitch = "no switch to the download port and no result within 13 s";
inline constexpr const char* kReasonNoVerdict = "the job ended before the engine's result";

// ---- firmware packages ----
// PAC extraction (English only).
inline constexpr const char* kPacCannotOpen = "Can not open file [%s]\n";
inline constexpr const char* kPacInvalidParams = "[CBinPacket]Invalidate params";
inline constexpr const char* kPacTooSmall = "Bin packet's size is too small,maybe it has been destructed!";
inline constexpr const char* kPacCrcError = "CRC Error!\nPAC file may be damaged!";
inline constexpr const char* kPacVersionNotSupported = "Bin packet version is not support!";
inline constexpr const char* kPacSizeWrong = "Bin packet's size is not correct,maybe it has been destructed!";
inline constexpr const char* kPacNoFiles = "There is no files in packet!";
inline constexpr const char* kPacNoTempPath = "Can not get temp path!";
inline constexpr const char* kPacCannotCreateFolder = "Can not create directory[%s]";
inline constexpr const char* kPacOutOfMemory = "[CBinPaket]Out of memory!";
inline constexpr const char* kPacReadFailed = "Read pakcet failed,maybe it has been destructed!";
inline constexpr const char* kPacDiskFull = "Extract PAC file failed!\nThe left space of \"%s\" disk maybe not enough!";
// Refusals of texts that do not fit their fields or names that would leave the folder.
inline constexpr const char* kPacProductNameTooLong = "Bin packet's product name is too long or not readable!";
inline constexpr const char* kPacFileNameRefused =
    "Bin packet's file name [%s] of entry %d is refused: %s.\nOnly a bare file name can be extracted!";
inline constexpr const char* kPacTextTooLong = "Bin packet's entry %d has a text longer than its field!";
inline constexpr const char* kPacTextNotUtf16 =
    "Bin packet's entry %d has a text that is not UTF-16 (a lone surrogate)!";
inline constexpr const char* kPacPathTooLong = "Extract path [%s] is too long!";
inline constexpr const char* kPacTooManyFiles = "Bin packet lists %d files, more than the %d that can be handled!";
// SPRD download configuration (English only).
inline constexpr const char* kSprdNoNvChosen =
    "Configure dangerouse: have not selected NV file to dwonload.\nPlease select right packet!";
inline constexpr const char* kSprdNoNvBackup =
    "Configure dangerouse: have not selected any NV item to backup.\nPlease select right packet!";
inline constexpr const char* kSprdRepartitionMissing =
    "Configure dangerouse: have selected repartition,\nbut not selected all files to download.\n[%s]\nPlease select "
    "right packet!";
inline constexpr const char* kSprdFilesMissing = "Configure dangerouse: have not selected all files to dwonload.\n[%s]";
// Package preparation window.
inline constexpr const char* kPrepInProgress = "正在进行中...";
inline constexpr LangText kPrepUnzipping{"正在解压缩文件...", "Unzipping files..."};
inline constexpr LangText kPrepValidating{"正在校验文件：", "Validating checksum:"};
inline constexpr LangText kPrepTitleValidate{"校验文件", "Validate Checksum"};
inline constexpr LangText kPrepTitleUnzip{"解压文件", "Unzip files"};
inline constexpr const char* kPrepUnzipFailed = "Unzip Pac Files Failed";
// MTK package preparation.
inline constexpr const char* kMtkMoreThanOneEfuse = "Error: more than one efuse xml file exist!";
inline constexpr const char* kMtkEfuseXmlUnreadable = "could not load the efuse xml file.";
inline constexpr const char* kMtkEfuseXmlTooLarge =
    "the efuse xml file [%s] has %llu bytes, more than the %u KiB an efuse xml may have: it is not loaded.";
inline constexpr const char* kMtkNoChipName = "could not find key word chip-name.";
inline constexpr LangText kMtkDaMissingStartup{"错误: DA文件未找到，请检查！",
                                               "Error: DA File Missing,please check it!!!"};
inline constexpr const char* kMtkDaMissingSettings = "Error : DA File Missing,please check it!!!";

// ---- devices and binding ----
inline constexpr const char* kSprdServiceMissing = "sprdvcom service is not found";
inline constexpr const char* kServiceNameLog = "the service name is %d";

}  // namespace quorvel::app::texts
