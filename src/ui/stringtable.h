// Texts that several pages and dialogs show.
#pragma once

#include <QStringView>

namespace strings {

inline constexpr QStringView kSystemMenuAbout = u"关于 VorlanFactoryTool(&A)...";
inline constexpr QStringView kStartBurn = u"开始烧录";
inline constexpr QStringView kStopBurn = u"停止烧录";
inline constexpr QStringView kInvalidFirmware = u"无效的固件!";
inline constexpr QStringView kBurnStopped = u"烧录已停止！";
inline constexpr QStringView kConnectDevice = u"请连接待烧录的设备！";

// Captions of boxes.
inline constexpr QStringView kNotice = u"提示";
inline constexpr QStringView kBurning = u"烧录进行中";

inline constexpr QStringView kNoImportWhileBurning = u"正在烧录中，不能导入！";

}  // namespace strings
