#include "VeskBase.h"

#include "LogFile.h"
#include "Verify.h"
#include "Wire.h"
#include "base/Protocol.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QMutexLocker>

#include <QSet>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <vector>

// Hosts filter the protocol log with QT_LOGGING_RULES="vesk.protocol.debug=true" and the like.
Q_LOGGING_CATEGORY(lcProtocol, "vesk.protocol", QtInfoMsg)

namespace VESK {

namespace {
// The message that carries a chunk of a listing: {"PATH":"file"|"dir",...}.
} // namespace

VeskBase::VeskBase(QObject* parent)
    : QObject(parent) {}

VeskBase::~VeskBase() = default;

// ---- Parameter store --------------------------------------------------------------------------

const QStringList& VeskBase::hostOnlyKeys() {
    static const QStringList keys = {
        "endPoint",        "clientSocket", "serverSocket", "mountPath",
        "appPath",         "fileMod",      "dirMod",       "logFile",
        "transtat-rec",    "tmpFilePath",  "total",        "path",
        "respondStatus",   "beginTime",    "endTime",      "transferBeginSize",
        "transferEndSize", "return",       "clientIp",     "clientPort"};
    return keys;
}

bool VeskBase::clearParam() {
    m_params.clear();
    return true;
}

bool VeskBase::setParam(QString key, QString value) {
    m_params.insert(key, value);
    return true;
}

bool VeskBase::setParams(QMap<QString, QString> params) {
    // This is the merge of a peer's TaskParam: a peer must never steer where the server writes,
    // which socket it uses or what it reports, so such a map is refused whole.
    const QStringList& guarded = hostOnlyKeys();
    for (auto it = params.cbegin(); it != params.cend(); ++it) {
        if (guarded.contains(it.key()))
            return false;
    }
    for (auto it = params.cbegin(); it != params.cend(); ++it)
        m_params.insert(it.key(), it.value());
    return true;
}

QString VeskBase::getParam(const QString& key, const QString& defaultValue) {
    return m_params.value(key, defaultValue);
}

bool VeskBase::getParams(QMap<QString, QString>& out) {
    out = m_params;
    return true;
}

bool VeskBase::getParams(QStringList keys, QMap<QString, QString>& out) {
    for (const QString& key : keys) {
        if (!m_params.contains(key))
            return false;
    }
    for (const QString& key : keys)
        out.insert(key, m_params.value(key));
    return true;
}

bool VeskBase::setParamInner(QString key, QString value) {
    m_inner.insert(key, value);
    return true;
}

QString VeskBase::getParamInner(QString key, QString defaultValue) {
    return m_inner.value(key, defaultValue);
}

// ---- Serialized parameter maps ----------------------------------------------------------------

QString VeskBase::serializeParam(const QMap<QString, QString>& map) {
    QJsonObject object;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        object.insert(it.key(), it.value());
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

namespace {

// Qt's JSON reader nests no deeper than this; a deeper text is not a parameter map anyway.
constexpr int kMaxJsonNesting = 1024;
// JSON's one-letter escapes and what they stand for.
const QString kEscapes = QStringLiteral("bfnrt");
const QString kEscaped = QStringLiteral("\b\f\n\r\t");

// The text of the JSON string that starts after the quote at `from`; `end` is set to its closing
// quote. Escapes are read the way Qt's reader reads them, so equal names compare equal here.
QString jsonString(const QString& text, int from, int& end) {
    QString out;
    int i = from;
    for (; i < text.size() && text[i] != '"'; ++i) {
        if (text[i] != '\\' || i + 1 >= text.size()) {
            out += text[i];
            continue;
        }
        const QChar escaped = text[++i];
        bool hex = false;
        const ushort code = text.midRef(i + 1, 4).toUShort(&hex, 16);
        const int simple = kEscapes.indexOf(escaped);
        if (escaped == 'u' && hex) {
            out += QChar(code);
            i += 4;
        } else {
            out += simple >= 0 ? kEscaped[simple] : escaped;
        }
    }
    end = i;
    return out;
}

// Qt 5.15's JSON reader leaks the earlier value when an object repeats a name whose value was an
// object or an array: a peer could grow the server's memory with every message. Parameter maps
// never repeat a name, so a text that does (at any depth) is not handed to Qt at all. The scan
// only follows strings and brackets; whatever else is wrong with a text is left to Qt to find.
bool safeForQtReader(const QString& text) {
    struct Scope {
        bool object;
        bool expectName;
        QSet<QString> names;
    };
    std::vector<Scope> scopes;
    for (int i = 0; i < text.size(); ++i) {
        switch (text[i].unicode()) {
        case '{':
        case '[':
            if (scopes.size() >= size_t(kMaxJsonNesting))
                return false;
            scopes.push_back({text[i] == '{', text[i] == '{', {}});
            break;
        case '}':
        case ']':
            if (!scopes.empty())
                scopes.pop_back();
            break;
        case ',':
            if (!scopes.empty() && scopes.back().object)
                scopes.back().expectName = true;
            break;
        case '"': {
            const QString string = jsonString(text, i + 1, i);
            if (scopes.empty() || !scopes.back().expectName)
                break;
            Scope& scope = scopes.back();
            if (scope.names.contains(string))
                return false;
            scope.names.insert(string);
            scope.expectName = false;
            break;
        }
        default:
            break;
        }
    }
    return true;
}

// The members of the JSON object `text` other than "bLast": the entries of a listing chunk.
qint64 listingEntries(const QString& text) {
    qint64 count = 0;
    int depth = 0;
    bool expectName = false;
    for (int i = 0; i < text.size(); ++i) {
        switch (text[i].unicode()) {
        case '{':
        case '[':
            ++depth;
            expectName = depth == 1 && text[i] == '{';
            break;
        case '}':
        case ']':
            --depth;
            break;
        case ',':
            expectName = depth == 1;
            break;
        case '"': {
            const QString string = jsonString(text, i + 1, i);
            if (expectName && string != QLatin1String("bLast"))
                ++count;
            expectName = false;
            break;
        }
        default:
            break;
        }
    }
    return count;
}

} // namespace

QMap<QString, QString> VeskBase::unSerializeParam(const QString& text) {
    QMap<QString, QString> map;
    // The scan reads the very text Qt reads, after the conversion to UTF-8, NULs included (the
    // QByteArray overload of fromUtf8 would stop at the first one; Qt's JSON reader does not).
    const QByteArray utf8 = text.toUtf8();
    if (!safeForQtReader(QString::fromUtf8(utf8.constData(), utf8.size())))
        return map;
    const QJsonDocument doc = QJsonDocument::fromJson(utf8);
    if (!doc.isObject())
        return map;
    const QJsonObject object = doc.object();
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        if (it.value().isString())
            map.insert(it.key(), it.value().toString());
    }
    return map;
}

// ---- Control messages -------------------------------------------------------------------------

int VeskBase::socketFromParams() {
    return getParam(getParam("endPoint", "") + "Socket", "-1").toInt();
}

void VeskBase::setListEntryLimit(qint64 limit) {
    m_listEntryLimit = std::max<qint64>(0, limit);
    m_listEntriesSent = 0;
}

QString VeskBase::listingStoppedText(qint64 limit) {
    return QStringLiteral(
               "listing stopped: it has more than %1 entries, the most this server lists")
        .arg(limit);
}

namespace {

// Whether a message whose answer is yes or no says no; the others carry no verdict.
bool saysNo(int messageNumber, const QString& text) {
    const char* key = messageNumber == protocol::kTaskParamAck       ? "ackRespond"
                      : messageNumber == protocol::kFileVerifyResult ? "verifyResult"
                                                                     : nullptr;
    return key &&
           VeskBase::unSerializeParam(text).value(QLatin1String(key)) != QLatin1String("true");
}

} // namespace

QVector<MessageEvent> VeskBase::messageRecord() const {
    QMutexLocker lock(&m_recordMutex);
    return m_record;
}

void VeskBase::record(MessageEvent::Direction direction, int number, MessageEvent::Result result,
                      const QString& text) {
    const bool refusal = result == MessageEvent::Result::Ok && saysNo(number, text);
    QMutexLocker lock(&m_recordMutex);
    if (!m_record.isEmpty()) {
        MessageEvent& last = m_record.last();
        if (last.direction == direction && last.number == number && last.result == result &&
            last.refusal == refusal) {
            ++last.repeats;
            return;
        }
    }
    m_record.append({direction, number, result, refusal, 1});
}

bool VeskBase::send(int messageNumber, const QString& text) {
    using Result = MessageEvent::Result;
    if (messageNumber == protocol::kListContent && m_listEntryLimit > 0) {
        m_listEntriesSent += listingEntries(text);
        if (m_listEntriesSent > m_listEntryLimit) {
            log("error", listingStoppedText(m_listEntryLimit));
            record(MessageEvent::Direction::Sent, messageNumber, Result::OverLimit);
            return false;
        }
    }
    QString error;
    if (!wire::sendFrame(socketFromParams(), quint32(messageNumber), text.toUtf8(), &error)) {
        log("error", QStringLiteral("send: message %1: %2").arg(messageNumber).arg(error));
        record(MessageEvent::Direction::Sent, messageNumber, Result::Failed);
        return false;
    }
    m_active.store(true);
    record(MessageEvent::Direction::Sent, messageNumber, Result::Ok, text);
    return true;
}

void VeskBase::setReceivedFrame(int messageNumber, const QByteArray& body) {
    m_receivedNumber = messageNumber;
    m_receivedBody = body;
}

void VeskBase::setBeforeFirstRecv(std::function<bool()> gate) {
    m_beforeFirstRecv = std::move(gate);
}

bool VeskBase::recv(int messageNumber, QString& text) {
    QString error;
    quint32 number = 0;
    QByteArray body;
    if (m_beforeFirstRecv && m_receivedNumber < 0) {
        const std::function<bool()> gate = std::move(m_beforeFirstRecv);
        m_beforeFirstRecv = nullptr;
        if (!gate()) {
            log("error", QStringLiteral("recv: message %1: the server did not accept the "
                                        "connection")
                             .arg(messageNumber));
            record(MessageEvent::Direction::Received, messageNumber, MessageEvent::Result::Failed);
            return false;
        }
    }
    if (m_receivedNumber >= 0) {
        number = quint32(m_receivedNumber);
        body = m_receivedBody;
        m_receivedNumber = -1;
        m_receivedBody.clear();
    } else if (!wire::recvFrame(socketFromParams(), number, body, &error)) {
        log("error", QStringLiteral("recv: message %1: %2").arg(messageNumber).arg(error));
        record(MessageEvent::Direction::Received, messageNumber, MessageEvent::Result::Failed);
        return false;
    }
    m_active.store(true);
    if (number != quint32(messageNumber)) {
        log("error",
            QStringLiteral("recv: expected message %1, got %2").arg(messageNumber).arg(number));
        record(MessageEvent::Direction::Received, messageNumber, MessageEvent::Result::Unexpected);
        return false;
    }
    text = QString::fromUtf8(body);
    record(MessageEvent::Direction::Received, messageNumber, MessageEvent::Result::Ok, text);
    return true;
}

// ---- Logging ----------------------------------------------------------------------------------

void VeskBase::log(QString level, QString message) {
    QMutexLocker lock(&m_logMutex);
    emit sigLog(level, message);

    const QString logFile = getParam("logFile", "");
    if (!logFile.isEmpty()) {
        // A peer's text reaches the file escaped, so it cannot forge a record of its own.
        const QString record =
            QStringLiteral("%1 [%2] %3\n")
                .arg(QDateTime::currentDateTime().toString("yyyy-MM-dd'T'hh:mm:ss.zzz"),
                     logfile::recordText(level), logfile::recordText(message));
        logfile::append(logFile, record.toUtf8());
    }

    const QByteArray text = message.toUtf8();
    if (level == QLatin1String("error"))
        qCCritical(lcProtocol, "%s", text.constData());
    else if (level == QLatin1String("warning"))
        qCWarning(lcProtocol, "%s", text.constData());
    else if (level == QLatin1String("info"))
        qCInfo(lcProtocol, "%s", text.constData());
    else
        qCDebug(lcProtocol, "%s", text.constData());
}

// ---- Paths and files --------------------------------------------------------------------------

QString VeskBase::pathJoin(const QString& a, const QString& b) {
    if (b.isEmpty())
        return a;
    if (a.isEmpty())
        return b;
    // `b` comes from a peer: it is confined so that the joined path never leaves `a`.
    QStringList kept;
    for (const QString& segment : b.split('/', Qt::SkipEmptyParts)) {
        if (segment == QLatin1String("."))
            continue;
        if (segment == QLatin1String("..")) {
            if (!kept.isEmpty())
                kept.removeLast();
            continue;
        }
        kept.append(segment);
    }
    QString head = a;
    while (head.endsWith('/'))
        head.chop(1);
    return head + '/' + kept.join('/');
}

bool VeskBase::mkdir(QString& path) {
    QDir().mkpath(path);
    return QFileInfo(path).isDir();
}

bool VeskBase::exist(QString& path) {
    return QFileInfo::exists(path);
}

bool VeskBase::chmod(const QString& path, int mode) {
    if (mode == kModeNotConfigured)
        return true;
    // Through a descriptor: a thread confined to a directory is checked when it opens a file,
    // not when it changes a mode by name, so a link leading outside its directory fails here.
    const QByteArray native = QFile::encodeName(path);
    constexpr int kFlags = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int fd = ::open(native.constData(), O_RDONLY | kFlags);
    if (fd < 0 && errno == EACCES)
        fd = ::open(native.constData(), O_WRONLY | kFlags); // a file its owner may only write
    if (fd < 0)
        return false;
    const bool ok = ::fchmod(fd, mode_t(mode)) == 0;
    ::close(fd);
    return ok;
}

bool VeskBase::chmodRecursively(const QString& base, const QString& path, int mode) {
    const QString top = QDir::cleanPath(base);
    const QString target = QDir::cleanPath(path);
    if (target == top)
        return true;
    const QString prefix = top.endsWith('/') ? top : top + '/';
    if (!target.startsWith(prefix))
        return false;
    QString current = top;
    for (const QString& segment : target.mid(prefix.size()).split('/', Qt::SkipEmptyParts)) {
        current = current.endsWith('/') ? current + segment : current + '/' + segment;
        if (!chmod(current, mode))
            return false;
    }
    return true;
}

QString VeskBase::getFileVerifyValue(QString& path, QString method) {
    return verify::fileValue(path, method);
}

QString VeskBase::generateTmpFilePath(QString& path) {
    return tmpFilePathFor(path);
}

QString VeskBase::appDirFromTable(const QString& table, const QString& appKey) {
    QMap<QString, QString> dirs;
    for (const QString& entry : table.split('%', Qt::SkipEmptyParts)) {
        const QStringList parts = entry.split(':', Qt::SkipEmptyParts);
        if (parts.size() == 2)
            dirs.insert(parts.at(0), parts.at(1));
    }
    return dirs.value(appKey);
}

QString VeskBase::tmpFilePathFor(const QString& path) {
    // Hidden, beside the destination (so the final rename stays on one file system), and the
    // same for every attempt (so a later attempt finds it and resumes).
    const int slash = path.lastIndexOf('/');
    return path.left(slash + 1) + '.' + path.mid(slash + 1) + ".vesk-part";
}

} // namespace VESK
