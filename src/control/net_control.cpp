#include "control/net_control.h"

#include "common/lenient_value.h"
#include "common/log.h"
#include "common/main_thread.h"
#include "common/notification_names.h"
#include "common/preferences.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringDecoder>
#include <QThread>
#include <QTimer>
#include <QUuid>

namespace velocast {

namespace {

// True when every value in v has a JSON form (null, bool, number, string, list, map).
bool isJsonWritable(const QVariant &v, int depth = 0)
{
    if (depth > 64) return false;
    if (isNumberType(v)) return std::isfinite(v.toDouble());
    switch (v.typeId()) {
    case QMetaType::UnknownType:
    case QMetaType::Nullptr:
    case QMetaType::Bool:
    case QMetaType::QString:
    case QMetaType::QStringList:
        return true;
    case QMetaType::QVariantList:
        for (const QVariant &e : v.toList()) {
            if (!isJsonWritable(e, depth + 1)) return false;
        }
        return true;
    case QMetaType::QVariantMap: {
        const QVariantMap m = v.toMap();
        for (auto it = m.cbegin(); it != m.cend(); ++it) {
            if (!isJsonWritable(it.value(), depth + 1)) return false;
        }
        return true;
    }
    default:
        return false;
    }
}

// The "%@" form of a parsed message in log lines.
QString describe(const QVariant &v)
{
    if (v.typeId() == QMetaType::QVariantMap)
        return QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(v.toMap())).toJson(QJsonDocument::Compact));
    if (v.typeId() == QMetaType::QVariantList)
        return QString::fromUtf8(QJsonDocument(QJsonArray::fromVariantList(v.toList())).toJson(QJsonDocument::Compact));
    return QStringLiteral("(null)");
}

struct SenderIdCache {
    std::mutex mutex;
    QString value;
};
SenderIdCache &senderIdCache()
{
    static SenderIdCache c;
    return c;
}

} // namespace

NetControl &NetControl::shareControl()
{
    static NetControl instance;
    return instance;
}

NetControl::NetControl() : context_(std::make_unique<QObject>()), life_(std::make_shared<NetControl *>(this))
{
    if (auto *app = QCoreApplication::instance(); app && context_->thread() != app->thread())
        context_->moveToThread(app->thread());

    sendObserver_ = NotificationCenter::defaultCenter().addObserver(
        QString::fromLatin1(notice::NETCONTROL_SEND), [this](const QVariant &object) { sendNotice(object); });

    std::weak_ptr<NetControl *> weak = life_;
    heart_.setHeartLost([weak] {
        auto self = weak.lock();
        if (!self) return;
        (*self)->disConnect();
        NotificationCenter::defaultCenter().post(QString::fromLatin1(notice::NETCONTROL_CONNECTBROKEN));
    });
    heart_.setSendHeaert([weak](uint64_t timestamp) {
        auto self = weak.lock();
        if (!self) return;
        const QVariantMap beat{{QStringLiteral("id"), QStringLiteral("id_heartbeat")},
            {QStringLiteral("property"), QVariantMap{{QStringLiteral("timestamp"), qint64(timestamp)}}}};
        QByteArray bytes = eventJsonWithDic(beat);
        if (bytes.isNull()) return;
        bytes.append('#');
        (*self)->sendData(bytes);
    });
}

NetControl::~NetControl()
{
    sendObserver_.reset();
    life_.reset();
    heart_.stopHeart();
    closeStream();
    // Pending time-outs die with their owner (destroy on the main thread).
}

// --- JSON and envelope --------------------------------------------------------------

QVariant NetControl::dicFromJson(const QByteArray &json)
{
    QJsonParseError err{};
    const QJsonDocument doc = QJsonDocument::fromJson(json, &err);
    if (err.error != QJsonParseError::NoError || doc.isNull()) return QVariant();
    if (doc.isObject()) return doc.object().toVariantMap();
    if (doc.isArray()) return doc.array().toVariantList();
    return QVariant();
}

QByteArray NetControl::jsonFromDic(const QVariantMap &dic)
{
    if (!isJsonWritable(dic)) return QByteArray();
    return QJsonDocument(QJsonObject::fromVariantMap(dic)).toJson(QJsonDocument::Indented);
}

QString NetControl::uuid() { return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper(); }

QString NetControl::senderID()
{
    SenderIdCache &cache = senderIdCache();
    std::lock_guard lock(cache.mutex);
    if (!cache.value.isEmpty()) return cache.value;
    const QString key = QString::fromLatin1(prefkey::UUIDS);
    const QVariant stored = Preferences::value(key);
    if (stored.typeId() == QMetaType::QString && !stored.toString().isEmpty()) {
        cache.value = stored.toString();
    } else {
        cache.value = uuid();
        Preferences::setValue(key, cache.value);
        Preferences::sync();
    }
    return cache.value;
}

void NetControl::clearSenderIDCacheForTests()
{
    std::lock_guard lock(senderIdCache().mutex);
    senderIdCache().value.clear();
}

QByteArray NetControl::eventJsonWithDic(const QVariant &dic)
{
    if (dic.typeId() != QMetaType::QVariantMap) return QByteArray();
    QVariantMap m = dic.toMap();
    m.insert(QStringLiteral("from"), 2);
    m.insert(QStringLiteral("to"), 5);
    m.insert(QStringLiteral("uuid"), senderID());
    return jsonFromDic(m);
}

// --- Sending ------------------------------------------------------------------------

void NetControl::sendDic(const QVariant &dic)
{
    const QByteArray json = eventJsonWithDic(dic);
    if (json.isNull()) return;
    const auto s = stream();
    if (!s || !s->isConnected()) return;
    if (logWanted(lcControl())) logLine(lcControl(), QStringLiteral("send json:%1").arg(QString::fromUtf8(json)));
    s->sendData(json + '#');
}

void NetControl::sendNotice(const QVariant &object) { sendDic(object); }

void NetControl::sendData(const QByteArray &data)
{
    const auto s = stream();
    if (s && s->isConnected()) s->sendData(data);
}

// --- Receiving ----------------------------------------------------------------------

void NetControl::postData(const QByteArray &chunk)
{
    // The whole chunk must be valid UTF-8 (a character cut at the chunk's end is not).
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(chunk);
    if (decoder.hasError()) {
        logLine(lcControl(), QStringLiteral("drop chunk of %1 bytes: not valid UTF-8").arg(chunk.size()));
        return;
    }
    const QStringList pieces = text.split(u'#', Qt::SkipEmptyParts);
    for (const QString &piece : pieces) {
        const QVariant object = dicFromJson(piece.toUtf8());
        if (heart_.receviDic(object)) continue;
        if (logWanted(lcControl())) logLine(lcControl(), QStringLiteral("recive dic:%1").arg(describe(object)));
        NotificationCenter::defaultCenter().post(QString::fromLatin1(notice::NETCONTROL_RECEIVE), object);
    }
}

// --- Connection ---------------------------------------------------------------------

void NetControl::connect(const QString &ip, ResultBlock result)
{
    closeStream();

    auto s = NetStream::create();
    s->setLocalIPStr(localIPStr());
    std::weak_ptr<NetControl *> weak = life_;
    s->setReceiveDataBlock([weak](const QByteArray &chunk) {
        if (auto self = weak.lock()) (*self)->postData(chunk);
    });
    s->setClosedBlock([] {
        logLine(lcControl(), QStringLiteral("close connected"));
        NotificationCenter::defaultCenter().post(QString::fromLatin1(notice::NETCONTROL_DISCONNECT));
    });
    {
        std::lock_guard lock(mutex_);
        stream_ = s;
    }

    auto outcome = [weak, result](bool success) {
        // The time-out is only ever touched on the main thread.
        auto cancel = [weak] {
            if (auto self = weak.lock()) (*self)->cancelTimeouts();
        };
        if (isMainThread()) {
            cancel();
        } else {
            runOnMainThread(cancel);
        }
        if (result) result(success);
    };
    s->createStreamWithHost(ip, port_, outcome);

    if (isMainThread()) {
        armTimeout(result);
    } else {
        // If the connect fails before this runs, the cancel above came first and this
        // time-out still fires: result then gets a second false.
        runOnMainThread([weak, result] {
            if (auto self = weak.lock()) (*self)->armTimeout(result);
        });
    }
}

// Main thread.
void NetControl::armTimeout(const ResultBlock &result)
{
    auto *timer = new QTimer(context_.get());
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer); // a coarse timer may fire up to 5 % early
    std::weak_ptr<NetControl *> weak = life_;
    QObject::connect(timer, &QTimer::timeout, context_.get(), [weak, timer, result] {
        timer->deleteLater();
        if (auto self = weak.lock()) (*self)->connectFaild(result);
    });
    timeouts_.emplace_back(timer);
    timer->start(kConnectTimeoutMs);
}

// Main thread.
void NetControl::cancelTimeouts()
{
    for (const QPointer<QTimer> &t : std::exchange(timeouts_, {})) {
        if (t) {
            t->stop();
            t->deleteLater();
        }
    }
}

int NetControl::pendingTimeouts() const
{
    int n = 0;
    for (const QPointer<QTimer> &t : timeouts_) n += (t && t->isActive()) ? 1 : 0;
    return n;
}

void NetControl::connectFaild(const ResultBlock &result)
{
    closeStream();
    if (result) result(false);
}

void NetControl::startBeatHeart(bool start)
{
    if (start) {
        heart_.startHeart();
    } else {
        heart_.stopHeart();
    }
}

void NetControl::closeStream()
{
    std::shared_ptr<NetStream> s;
    {
        std::lock_guard lock(mutex_);
        s = std::move(stream_);
    }
    if (s) s->closeStream();
}

void NetControl::disConnect()
{
    startBeatHeart(false);
    closeStream();
}

void NetControl::disConnectSoon()
{
    startBeatHeart(false);
    std::weak_ptr<NetStream> current = stream();
    std::weak_ptr<NetControl *> weak = life_;
    runOnMainThread([weak, current] {
        auto self = weak.lock();
        const auto s = current.lock();
        if (!self || !s) return;
        {
            std::lock_guard lock((*self)->mutex_);
            // A connect made meanwhile has its own stream: leave it alone.
            if ((*self)->stream_ != s) return;
            (*self)->stream_.reset();
        }
        s->closeStream();
    });
}

void NetControl::cancelConnect()
{
    if (isMainThread()) {
        cancelTimeouts();
    } else {
        std::weak_ptr<NetControl *> weak = life_;
        runOnMainThread([weak] {
            if (auto self = weak.lock()) (*self)->cancelTimeouts();
        });
    }
    disConnect();
}

QString NetControl::localIPStr() const
{
    std::lock_guard lock(mutex_);
    return localIPStr_;
}

void NetControl::setLocalIPStr(const QString &ip)
{
    std::lock_guard lock(mutex_);
    localIPStr_ = ip;
}

std::shared_ptr<NetStream> NetControl::stream() const
{
    std::lock_guard lock(mutex_);
    return stream_;
}

} // namespace velocast
