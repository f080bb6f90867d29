#pragma once

// Reaches the handler's private helpers for unit tests; the handler names this class a friend.

#include "handler/VeskHandler2_0_0.h"

namespace VESK {

class HandlerInternals {
public:
    explicit HandlerInternals(VeskHandler2_0_0& handler)
        : h(handler) {}

    bool createStream(QString& path, int mode) { return h.createStream(path, mode); }
    bool destroyStream() { return h.destroyStream(); }
    std::fstream* getStream() { return h.getStream(); }
    void setStream(std::fstream* stream) { h.setStream(stream); }
    QString getStatus() { return h.getStatus(); }
    void setStatus(const QString& text) { h.setStatus(text); }
    QString getAppPath(const QString& key) { return h.getAppPath(key); }
    void UpdateMtime(QString& path, const QString& function, qint64 mtime) {
        h.UpdateMtime(path, function, mtime);
    }
    bool collectTaskParam(const QString& function, const QStringList& keys, ParamMap& map) {
        return h.collectTaskParam(function, keys, map);
    }
    QString getParamInner(const QString& key) { return h.getParamInner(key, ""); }
    bool setParamInner(const QString& key, const QString& value) {
        return h.setParamInner(key, value);
    }
    bool isActive() const { return h.isActive(); }

private:
    VeskHandler2_0_0& h;
};

} // namespace VESK
