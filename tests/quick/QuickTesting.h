#pragma once

#include <QQmlComponent>
#include <QQmlEngine>

#include <gtest/gtest.h>

#include <memory>

// Defined by the QML module's generated registration; calling it links the module into the test.
void qml_register_types_Quorlix();

namespace Quorlix::Testing {

/// An object made from QML text by an engine that imports the module from the build tree, as a
/// host's engine imports it from Qt's QML directory; null (and a failed expectation) on errors.
inline std::unique_ptr<QObject> createFromQml(QQmlEngine& engine, const QByteArray& qml)
{
    [[maybe_unused]] static const bool registered = [] {
        qml_register_types_Quorlix();
        return true;
    }();
    engine.addImportPath(QStringLiteral(QUORLIX_QML_DIR));
    QQmlComponent component(&engine);
    component.setData(qml, QUrl(QStringLiteral("file:///test.qml")));
    std::unique_ptr<QObject> object(component.create());
    EXPECT_TRUE(object) << component.errorString().toStdString();
    return object;
}

} // namespace Quorlix::Testing
