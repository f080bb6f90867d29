#pragma once

// The protocol handler for VESK 2.0.0. One object performs one task (upload, download, listing or
// directory creation) as the client or the server end of one UDT connection. The class is defined
// across several source files, one per concern; the members below are grouped the same way.

#include "base/VeskBase.h"

#include <QMutex>
#include <QString>

#include <fstream>

class QFile;

namespace VESK {

class VeskHandler2_0_0 : public VeskBase {
    Q_OBJECT

public:
    // ---- VeskHandler2_0_0.cpp: construction, registry, accessors ----
    VeskHandler2_0_0();
    ~VeskHandler2_0_0() override;

    QString getKey() override;
    QString getLastError() override;

    // ---- handler/TaskDriver.cpp ----
    bool process() override;

    // ---- handler/PauseCancel.cpp ----
    bool pause() override;
    bool cancel() override;

protected:
    // ---- handler/TaskDriver.cpp ----
    bool request() override;
    bool respond() override;

    // ---- operations/upload/ ----
    bool uploadRequest() override;
    bool uploadRespond() override;

    // ---- operations/download/ ----
    bool downloadRequest() override;
    bool downloadRespond() override;

    // ---- operations/listing/ ----
    bool listRequest() override;
    bool listRespond() override;
    bool createDirRequest() override;
    bool createDirRespond() override;

private:
    // Gives the unit tests of the private helpers (streams, mtimes, application paths) access.
    friend class HandlerInternals;

    // ---- VeskHandler2_0_0.cpp ----
    QString getStatus();
    void setStatus(const QString& text);

    // ---- handler/PauseCancel.cpp ----
    // Records `word` as the status and, on the server, closes the socket; pause() and cancel()
    // differ only in the word.
    bool requestStop(const QString& word);

    // ---- handler/TaskDriver.cpp ----
    void transfer();
    using Operation = bool (VeskHandler2_0_0::*)();
    // Runs the operation named `op`; logs "not found operator" under `function` otherwise.
    bool dispatch(const QString& function, const QString& op, Operation upload, Operation download,
                  Operation list, Operation createDir);
    // Leaves the operation through process() when a pause or cancel has been requested.
    void checkStatus();
    // The opening exchange every client request shares: getParams over `keys` (with the
    // parameter dump on failure), then the send of TaskParam and the receive of TaskParamAck.
    bool collectTaskParam(const QString& function, const QStringList& keys, ParamMap& map);
    void logParamDump(const QString& function, const QStringList& keys);
    bool sendTaskParam(const QString& function, const ParamMap& map);
    bool recvTaskParamAck(const QString& function, ParamMap& ack);
    // True when the ack accepts the task; otherwise logs the refusal and keeps its errorType.
    bool ackAccepted(const QString& function, const ParamMap& ack);
    bool sendTaskParamAck(const QString& function, const ParamMap& ack);
    // Sends `map` serialized as message `number`; the caller logs its own failure text.
    bool sendMap(int number, const ParamMap& map);
    bool recvMap(int number, ParamMap& map);
    // Octal "fileMod"/"dirMod" text to a mode; empty text gives the decimal 777 ("keep").
    static int parseMode(const QString& text);

    // ---- files/FileStream.cpp ----
    bool createStream(QString& path, int mode);
    bool destroyStream();
    std::fstream* getStream();
    void setStream(std::fstream* stream);

    // ---- files/BulkTransfer.cpp ----
    enum class Direction { Send, Receive };
    // The bulk step every transfer side shares: opens `streamPath` with `mode`, moves
    // size - offset bytes over `socket` in one UDT call starting at `offset` (advanced in place),
    // records "transferEndSize" and releases the stream. A transport failure during a pause or
    // cancel leaves through checkStatus(); any other failure is logged with `logPath`.
    bool bulkTransfer(const QString& function, Direction direction, int socket, QString& streamPath,
                      const QString& logPath, int mode, qint64& offset, qint64 size);
    // Address of a host-owned progress counter from "total"/"offset"; null when not supplied.
    qint64* counterFromParam(const QString& key);

    // ---- operations/download/ ----
    // Checks the received temporary file against the server's value and tells the server the
    // outcome; a mismatching file is deleted.
    bool sendVerifyResult(const QString& function, QString& tmpPath, const QString& method,
                          const QString& expected);
    // Deletes the temporary file whose length the server rejected; the offset restarts at 0.
    bool dropRejectedTmpFile(const QString& function, const QString& tmpPath, qint64& offset,
                             qint64 fileSize);
    // Replaces the old destination (if any) with the received temporary file.
    bool placeDownloadedFile(const QString& function, const QString& tmpPath,
                             const QString& destination, bool replaceOld);
    // The server's wait for the client's FileVerifyResult (when verifying) and TaskComplete.
    bool recvDownloadEnd(const QString& function, bool verifying);

    // ---- files/MtimeAndAppPath.cpp ----
    QString getAppPath(const QString& appKey);
    // The directory a server operation works below: the mount, then the application's
    // directory, then the client's root path. False, after logging, for an unknown "appKey".
    bool resolveAppRoot(const QString& function, QString& root);
    void UpdateMtime(QString& path, QString funcName, qint64 mtime);

    QMutex m_streamLock;
    std::fstream* m_stream = nullptr;
    QString m_status;
    QFile* m_file = nullptr;
};

} // namespace VESK

extern "C" {
__attribute__((visibility("default"))) VESK::VeskBase* create();
__attribute__((visibility("default"))) void destroy(VESK::VeskBase* handler);
}
