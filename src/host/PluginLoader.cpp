#include "PluginLoader.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace VESK {

namespace {

const char* const kPluginName = "vesk_2_0_0";

QString pluginBaseName() {
    return QString("lib") + kPluginName;
}

QString pluginFile(const QString& directory) {
    if (!directory.isEmpty())
        return QDir(directory).filePath(pluginBaseName());
    const QString fromEnv = qEnvironmentVariable("VESK_PLUGIN_PATH");
    if (!fromEnv.isEmpty())
        return QDir(fromEnv).filePath(pluginBaseName());
    // The build tree keeps the plug-in in ../lib beside bin/; an installed vesk finds it in the
    // plug-in directory that the build recorded relative to the installed binary.
    const QDir binDir(QCoreApplication::applicationDirPath());
    const QStringList candidates{QStringLiteral("../lib"),
                                 QStringLiteral(VESK_INSTALLED_PLUGIN_DIR)};
    for (const QString& candidate : candidates) {
        const QString file = QDir(binDir.filePath(candidate)).filePath(pluginBaseName());
        if (QFileInfo::exists(file + ".so"))
            return file;
    }
    return QDir(binDir.filePath(candidates.first())).filePath(pluginBaseName());
}

} // namespace

PluginLoader::PluginLoader(const QString& directory)
    : m_library(pluginFile(directory)) {}

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
