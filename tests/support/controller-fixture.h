// SPDX-License-Identifier: GPL-2.0-or-later
// What the controller's tests share: a scripted service on the built-in origin's port, private
// settings, and look-ups of the docks' widgets the way a user finds them, by their texts.
#pragma once

// Qt's headers first: OBS's SIMD shims must not come before the compiler's intrinsics.
#include <QDockWidget>
#include <QLabel>
#include <QLineEdit>
#include <QSettings>
#include <QTest>
#include <QUrl>
#include <QtTest>

#include "obs-host-double.h"
#include "scripted-service.h"

namespace fixture {

inline quint16 originPort()
{
    return quint16(QUrl(QStringLiteral(TESSIVANE_SERVICE_ORIGIN)).port());
}

inline QWidget *dockWidget(const char *id)
{
    QDockWidget *dock = hostDouble::dock(QString::fromUtf8(id));
    return dock ? dock->widget() : nullptr;
}

template <typename T> T *withText(QWidget *root, const QString &text)
{
    const QList<T *> widgets = root->findChildren<T *>();
    for (T *widget : widgets) {
        if (widget->text() == text)
            return widget;
    }
    return nullptr;
}

inline QLineEdit *field(QWidget *root, const QString &placeholder)
{
    const QList<QLineEdit *> edits = root->findChildren<QLineEdit *>();
    for (QLineEdit *edit : edits) {
        if (edit->placeholderText() == placeholder)
            return edit;
    }
    return nullptr;
}

inline QSettings store()
{
    return QSettings(QStringLiteral("Tessivane"), QStringLiteral("OBS Plugin"));
}

// Waits until the service has seen `count` requests; false if they never come.
inline bool waitForRequests(const ScriptedService &service, int count)
{
    return QTest::qWaitFor([&]() { return service.requests().size() >= count; }, 10000);
}

} // namespace fixture
