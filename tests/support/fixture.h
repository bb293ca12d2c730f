// SPDX-License-Identifier: GPL-2.0-or-later
// What the tests share: a scripted local service, a way into the client, and the controller's
// tests' base with the host double, the service on the origin's port and a store of their own.
#pragma once

// Qt's headers before OBS's: OBS's SIMD shims must not come before the compiler's intrinsics.
#include <QDockWidget>
#include <QHttpServer>
#include <QLabel>
#include <QMainWindow>
#include <QMessageBox>
#include <QPushButton>
#include <QNetworkReply>
#include <QSettings>
#include <QSslConfiguration>
#include <QtTest>

#include "obs-host-double.h"
#include "tessivane-controller.h"

#include <vector>

// A local HTTPS service with the trusted development certificate: records each request as it
// arrived on the wire and answers as scripted.
class ScriptedService : public QObject {
    Q_OBJECT

public:
    struct Request {
        QByteArray method, target; // the target as sent, not decoded
        QHttpHeaders headers;
        QByteArray body;

        QByteArray header(QAnyStringView name) const { return headers.value(name).toByteArray(); }
    };
    struct Reply {
        int status = 200; // 0: never answered
        QByteArray body = "{}";
        QByteArray location = {}; // a Location header, for redirects
        bool chunked = false;     // sent without its length
    };
    static constexpr int hold = 0;

    explicit ScriptedService(QObject *parent = nullptr);
    bool listen(quint16 port = 0); // 0 picks a free one
    QUrl baseUrl() const;
    // The answer to each request for a target; others get `fallback`.
    QHash<QByteArray, Reply> replies;
    Reply fallback;
    QList<Request> requests;
    void reset() { requests.clear(), replies.clear(), fallback = {}; }

private:
    QHttpServer http_;
    std::vector<QHttpServerResponder> held_;
};

struct TessivaneTestAccess {
    static TessivaneApi &api(TessivaneController &controller) { return controller.api_; }
    // The general, the stream and the update status line.
    static QStringList statusLines(const TessivaneController &controller)
    {
        return {controller.accountStatusLabel_->text(), controller.streamInfoStatusLabel_->text(),
                controller.updateStatusLabel_->text()};
    }
    // Whether a request of the client is in flight.
    static bool busy(TessivaneApi &api)
    {
        const QList<QNetworkReply *> replies = api.manager_.findChildren<QNetworkReply *>();
        return std::any_of(replies.begin(), replies.end(),
                           [](QNetworkReply *reply) { return reply->isRunning(); });
    }
    // Waits until the service has seen every request, so that a test compares the exact list.
    static bool settle(TessivaneApi &api)
    {
        return QTest::qWaitFor([&]() { return !busy(api); });
    }
    // The same without qWaitFor's naps, where thousands of requests follow one another.
    static void drain(TessivaneApi &api)
    {
        while (busy(api))
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    static QObject *manager(TessivaneApi &api) { return &api.manager_; }
    // How long a silent reply is waited for.
    static int &silence(TessivaneApi &api) { return api.silenceMs_; }
    static int &installerSilence(TessivaneController &c) { return c.installerSilenceMs_; }
};

class ControllerTest : public QObject {
    Q_OBJECT

public:
    ControllerTest();
    // Where QDesktopServices hands the addresses and files the plug-in opens.
    Q_SLOT void openUrl(const QUrl &url) { opened_ << url; }

protected:
    ScriptedService service_;
    TessivaneController *controller_ = nullptr;
    // Each box as it opens ("title|text"; a dialog's "title|label|echo mode|text"), closed by
    // answer_ or else by its default button, a dialog cancelled.
    QStringList modals_;
    std::function<void(QDialog *)> answer_;
    QList<QUrl> opened_;
    // What a screen reader was told since the test began, a failure marked with "!".
    static QStringList &announced();

    // Each test begins with a controller started; one that sets the stage first starts anew.
    bool restart()
    {
        delete controller_;
        return (controller_ = new TessivaneController)->initialize();
    }
    TessivaneApi &api() { return TessivaneTestAccess::api(*controller_); }
    // The requests once the client is quiet, as "METHOD target body", sorted.
    QStringList wire();
    QList<QByteArray> settledTargets();
    QStringList statusLines() const { return TessivaneTestAccess::statusLines(*controller_); }
    static bool docksShown();
    static QSettings store() { return QSettings("Tessivane", "OBS Plugin"); }
    static QWidget *panel(const char *id) { return hostDouble::dock(id)->widget(); }
    // What the widgets under root show: labels, buttons, fields and list rows.
    static QStringList texts(QWidget *root);
    template <typename T> static T *withText(QWidget *root, const QString &text)
    {
        for (T *widget : root->findChildren<T *>())
            if (widget->text() == text)
                return widget;
        return nullptr;
    }
    // Presses a box's button, or its only one.
    static void press(QDialog *box, QMessageBox::StandardButton which)
    {
        QAbstractButton *button = static_cast<QMessageBox *>(box)->button(which);
        (button ? button : static_cast<QMessageBox *>(box)->buttons().constFirst())->click();
    }

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

private:
    QTimer modalTimer_;
};
