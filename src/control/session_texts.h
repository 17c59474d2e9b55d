// Texts of the connection session: its failure tips and the permission refusals it reports.
#pragma once

#include <QString>

namespace velocast::text {

inline const QString kCodeOrNetworkError = QStringLiteral("连接码错误或与接收端不在同一网络");
inline const QString kReceiverFull = QStringLiteral("传屏已投满请稍后重试");
inline const QString kReceiverDeclined = QStringLiteral("接收端未同意你的请求");
inline const QString kConnectFailed = QStringLiteral("连接失败");
inline const QString kDisconnected = QStringLiteral("断开连接");
inline const QString kCastFailed = QStringLiteral("投屏失败");

} // namespace velocast::text
