// Every text the windows show, in one place (UTF-8 source). Tests compare against these.
#pragma once

#include "control/session_texts.h" // the session's tips, shown in the main window

#include <QString>

namespace velocast::text {

// Main window: code entry.
inline const QString kWifiLabel = QStringLiteral("无线网络:");
inline const QString kWiredLabel = QStringLiteral("有线网络:");
inline const QString kNoNetwork = QStringLiteral("网络未连接，请检查网络设置");
inline const QString kConnecting = QStringLiteral("正在连接…");
inline const QString kEnterCode = QStringLiteral("请输入接收端显示的6位连接码");
inline const QString kCodeBoxName = QStringLiteral("连接码第%1位");

// Application shell.
inline const QString kFirstStart = QStringLiteral("第一次启动");
inline const QString kNotFirstStart = QStringLiteral("不是第一次启动");

// Casting panel.
inline const QString kStartCasting = QStringLiteral("开启投屏");
inline const QString kStopCasting = QStringLiteral("停止投屏");
inline const QString kMirrorScreen = QStringLiteral("复制屏幕");
// The second road's entry: the desktop's own casting facility finds the receiver.
inline const QString kSystemCasting = QStringLiteral("系统投屏");
inline const QString kConnectedReceiver = QStringLiteral("已连接接收端");
inline const QString kCastingRoad = QStringLiteral("投屏方式");
inline const QString kChooseCastingRoad = QStringLiteral("选择投屏方式");
inline const QString kDisconnectButton = QStringLiteral("断开连接");
inline const QString kNamePromptTitle = QStringLiteral("设置显示名称");
inline const QString kNamePromptDetail = QStringLiteral("给这台电脑起一个名字，接收端会用它来显示这台电脑。");
inline const QString kNamePromptLater = QStringLiteral("以后再说");
inline const QString kNamePromptGo = QStringLiteral("去设置");
inline const QString kWaitingForReceiver = QStringLiteral("正在等待接收端同意投屏…");
inline const QString kLoading = QStringLiteral("加载中");

// Settings.
inline const QString kNameRequired = QStringLiteral("请填写显示名称，名称不能为空");
inline const QString kDefaultName = QStringLiteral("default");
inline const QString kSettingsTitle = QStringLiteral("设置");
inline const QString kDisplayNameLabel = QStringLiteral("显示名称");
inline const QString kDisplayNameHint = QStringLiteral("只能使用字母、数字和汉字，最多 8 个字母或 4 个汉字");
inline const QString kStartAtLoginSwitch = QStringLiteral("登录时自动启动");
inline const QString kConfirm = QStringLiteral("确定");
inline const QString kCancel = QStringLiteral("取消");

// Help wizard.
inline const QString kCopied = QStringLiteral("复制完成");
inline const QString kHelpTitle = QStringLiteral("连接帮助");
inline const QString kHelpStep1Title = QStringLiteral("第 1 步：连接同一个网络");
inline const QString kHelpStep1Detail = QStringLiteral("确认这台电脑和接收端连在同一个局域网里：同一个无线网络，或同一台路由器的有线网络。");
inline const QString kHelpStep2Title = QStringLiteral("第 2 步：找到连接码");
inline const QString kHelpStep2Detail = QStringLiteral("在接收端的屏幕上找到六位数字的连接码。");
inline const QString kHelpStep3Title = QStringLiteral("第 3 步：输入连接码");
inline const QString kHelpStep3Detail = QStringLiteral("在主窗口依次输入这六位数字，接收端同意后就可以开始投屏。");
inline const QString kHelpMore = QStringLiteral("更多帮助：");
inline const QString kCopyHelpLink = QStringLiteral("复制链接");
inline const QString kOpenHelpPage = QStringLiteral("打开");
inline const QString kHelpPageNotOpened = QStringLiteral("无法打开帮助页面，请复制链接后在浏览器中打开");
inline const QString kNext = QStringLiteral("下一步");
inline const QString kPrevious = QStringLiteral("上一步");
inline const QString kDone = QStringLiteral("完成");
inline const QString kClose = QStringLiteral("关闭");

} // namespace velocast::text
