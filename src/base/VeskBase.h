#pragma once

// The base class of every vesk protocol handler: parameter store, control messages over a UDT
// socket, logging, and the path, file and verify helpers the handlers share.

#include <QByteArray>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVector>

#include <atomic>
#include <functional>

namespace VESK {

using ParamMap = QMap<QString, QString>;

// One control message of a task as the base sent or received it. Hosts read the record of a
// task after process() to learn how far its conversation went, instead of reading its log.
struct MessageEvent {
    enum class Direction : quint8 { Sent, Received };
    enum class Result : quint8 {
        Ok,         // sent, or received as the message asked for
        Failed,     // the connection failed on the way
        Unexpected, // another message came than the one asked for
        OverLimit,  // a listing chunk past the entry limit: not sent
    };
    Direction direction = Direction::Sent;
    int number = 0; // the message asked for (Protocol.h)
    Result result = Result::Ok;
    // The message said no: a TaskParamAck that refuses the task, a FileVerifyResult that rejects
    // the copy.
    bool refusal = false;
    // Consecutive events alike are one entry (a listing sends thousands of chunks).
    int repeats = 1;
};

class VeskBase : public QObject {
    Q_OBJECT

public:
    explicit VeskBase(QObject* parent = nullptr);
    ~VeskBase() override;

    // The handler interface, in the order hosts and handlers rely on.
    virtual QString getKey() = 0;
    virtual QString getLastError() = 0;
    virtual bool clearParam();
    virtual bool setParam(QString key, QString value);
    virtual bool setParams(QMap<QString, QString> params);
    virtual QString getParam(const QString& key, const QString& defaultValue);
    virtual bool getParams(QMap<QString, QString>& out);
    virtual bool getParams(QStringList keys, QMap<QString, QString>& out);
    virtual bool process() = 0;
    virtual bool pause() = 0;
    virtual bool cancel() = 0;

    // True once a control message was sent or received since the handler last cleared the flag.
    bool isActive() const { return m_active.load(); }

    // The most entries the listing chunks of this task may carry (0: no limit). Past it the
    // chunk is not sent and the send fails with a log line, which ends the listing: the host's
    // bound on a tree whose links loop, and on the memory a listing holds meanwhile.
    void setListEntryLimit(qint64 limit);

    // Keys that only the local host may set; a peer's TaskParam naming one of them is refused.
    static const QStringList& hostOnlyKeys();

    // The control messages sent and received since the handler was created, oldest first.
    QVector<MessageEvent> messageRecord() const;

    // The log line of a listing stopped at `limit` entries, also the reason hosts report.
    static QString listingStoppedText(qint64 limit);

    static QString serializeParam(const QMap<QString, QString>& map);
    static QMap<QString, QString> unSerializeParam(const QString& text);
    static QString pathJoin(const QString& a, const QString& b);
    static bool mkdir(QString& path);
    static bool exist(QString& path);
    static bool chmod(const QString& path, int mode);
    static bool chmodRecursively(const QString& base, const QString& path, int mode);
    // Where `path` is received before it is complete: dir/.name.vesk-part beside it.
    static QString tmpFilePathFor(const QString& path);
    // The directory of application `appKey` in an "appPath" table ("key:dir%key:dir"), or "" when
    // the table has no such key. An entry that does not split into exactly two non-empty parts
    // (a directory holding a colon, say) is skipped; a later key wins.
    static QString appDirFromTable(const QString& table, const QString& appKey);

    // For the server host, which reads and checks a peer's first message itself before the
    // handler runs: the next recv() returns this frame instead of reading the socket.
    void setReceivedFrame(int messageNumber, const QByteArray& body);

    // For a client host that lets the handler send its task before the server has answered the
    // host's own greeting: `gate` runs once, before the first recv() reads the socket, and reads
    // that answer; when it returns false, that recv() fails.
    void setBeforeFirstRecv(std::function<bool()> gate);

    // The integer a handler passes for an empty "fileMod"/"dirMod": keep the created mode.
    static constexpr int kModeNotConfigured = 777;

signals:
    void sigLog(QString level, QString message);
    void sigList(QMap<QString, QString> map);

protected:
    virtual bool send(int messageNumber, const QString& text);
    virtual bool recv(int messageNumber, QString& text);
    virtual void log(QString level, QString message);

    virtual bool request() = 0;
    virtual bool uploadRequest() = 0;
    virtual bool downloadRequest() = 0;
    virtual bool listRequest() = 0;
    virtual bool createDirRequest() = 0;
    virtual bool respond() = 0;
    virtual bool uploadRespond() = 0;
    virtual bool downloadRespond() = 0;
    virtual bool listRespond() = 0;
    virtual bool createDirRespond() = 0;

    virtual bool setParamInner(QString key, QString value);
    virtual QString getParamInner(QString key, QString defaultValue);
    virtual QString getFileVerifyValue(QString& path, QString method);
    virtual QString generateTmpFilePath(QString& path);

    void clearActive() { m_active.store(false); }

    // Derived classes fill the maps directly while they are constructed (no virtual calls yet).
    QMap<QString, QString> m_params;
    QMap<QString, QString> m_inner;

private:
    int socketFromParams();
    void record(MessageEvent::Direction direction, int number, MessageEvent::Result result,
                const QString& text = QString());

    std::atomic<bool> m_active{false};
    qint64 m_listEntryLimit = 0;
    qint64 m_listEntriesSent = 0;
    QMutex m_logMutex;
    mutable QMutex m_recordMutex;
    QVector<MessageEvent> m_record;
    // A frame the host already read (setReceivedFrame); number -1 when there is none.
    int m_receivedNumber = -1;
    QByteArray m_receivedBody;
    std::function<bool()> m_beforeFirstRecv; // see setBeforeFirstRecv
};

} // namespace VESK
