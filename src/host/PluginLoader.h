#pragma once

// Loads the protocol plug-in and hands out handlers from its create()/destroy().

#include "base/VeskBase.h"

#include <QLibrary>
#include <QString>

#include <memory>

namespace VESK {

class PluginLoader {
public:
    // Looks in `directory`, else $VESK_PLUGIN_PATH, else ../lib beside the executable (the build
    // tree), else the plug-in directory of an installed vesk.
    explicit PluginLoader(const QString& directory = QString());
    bool load(QString* error);
    QString fileName() const { return m_library.fileName(); }

    struct Deleter {
        void (*destroy)(VeskBase*) = nullptr;
        void operator()(VeskBase* handler) const {
            if (destroy)
                destroy(handler);
        }
    };
    using Handler = std::unique_ptr<VeskBase, Deleter>;
    Handler create() const;

private:
    QLibrary m_library;
    VeskBase* (*m_create)() = nullptr;
    void (*m_destroy)(VeskBase*) = nullptr;
};

} // namespace VESK
