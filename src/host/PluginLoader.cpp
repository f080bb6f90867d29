#include "PluginLoader.h"

#include <QCoreApplication>
#include <QDir>

namespace VESK {

namespace {

const char* const kPluginName = "vesk_2_0_0";

QString pluginDirectory(const QString& directory) {
    if (!directory.isEmpty())
        return directory;
    const QString fromEnv = qEnvironmentVariable("VESK_PLUGIN_PATH");
    if (!fromEnv.isEmpty())
        return fromEnv;
    return QDir(QCoreApplication::applicationDirPath()).filePath("../lib");
}

} // namespace

PluginLoader::PluginLoader(const QString& directory)
    : m_library(QDir(pluginDirectory(directory)).filePath(QString("lib") + kPluginName)) {}

bool PluginLoader::load(QString* error) {
    if (!m_library.load()) {
        if (error)
            *error = QString("cannot load the plug-in %1: %2 (use --plugins DIR or "
                             "VESK_PLUGIN_PATH)")
                         .arg(m_library.fileName(), m_library.errorString());
        return false;
    }
    m_create = reinterpret_cast<VeskBase* (*)()>(m_library.resolve("create"));
    m_destroy = reinterpret_cast<void (*)(VeskBase*)>(m_library.resolve("destroy"));
    if (!m_create || !m_destroy) {
        if (error)
            *error = QString("%1 is not a vesk plug-in: it lacks create/destroy")
                         .arg(m_library.fileName());
        return false;
    }
    return true;
}

PluginLoader::Handler PluginLoader::create() const {
    return Handler(m_create ? m_create() : nullptr, Deleter{m_destroy});
}

} // namespace VESK
