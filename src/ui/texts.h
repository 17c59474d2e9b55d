// Every text the windows show, in one place (UTF-8 source). Tests compare against these.
#pragma once

#include <QString>

namespace velocast::text {

// Main window: code entry and connection session.
inline const QString kWifiLabel = QStringLiteral("无线网络:");
inline const QString kWiredLabel = QStringLiteral("有线网络:");
inline const QString kCodeOrNetworkError = QStringLiteral("连接码错误或与接收端不在同一网络");
inline const QString kReceiverFull = QStringLiteral("传屏已投满请稍后重试");
inline const QString kReceiverDeclined = QStringLiteral("接收端未同意你的请求");
inline const QString kConnectFailed = QStringLiteral("连接失败");
inline const QString kDisconnected = QStringLiteral("断开连接");
inline const QString kCastFailed = QStringLiteral("投屏失败");

// Application shell.
inline const QString kFirstStart = QStringLiteral("第一次启动");
inline const QString kNotFirstStart = QStringLiteral("不是第一次启动");

// Casting panel.
inline const QString kStartCasting = QStringLiteral("开启投屏");
inline const QString kStopCasting = QStringLiteral("停止投屏");
inline const QString kMirrorScreen = QStringLiteral("复制屏幕");

// Settings.
inline const QString kNameRequired = QStringLiteral("请填写显示名称，名称不能为空");
inline const QString kDefaultName = QStringLiteral("default");

// Help wizard.
inline const QString kCopied = QStringLiteral("复制完成");

} // namespace velocast::text
