// SPDX-License-Identifier: GPL-2.0-or-later
// Where the plug-in's memory goes, step by step: the heap in use (glibc's count, after giving back
// what is free) and the anonymous resident memory of the process, once with the docks alone, once
// with a busy chat shown and rebuilt ten times, and once after polls over TLS to the development
// service. Not a timing: it prints one line a step. And a long session (endurance): whether
// memory grows over 10,000 polls (a minute and a half of them on a 2-core machine).
//   QT_QPA_PLATFORM=offscreen build/bench/bench-memory [steps|endurance]
#include "dev-service.h"
#include "fixture.h"

#include <QJsonDocument>
#include <QProcess>
#include <QSignalSpy>
#include <QSslCertificate>

#include <malloc.h>

class BenchMemory : public QObject {
    Q_OBJECT

    static void report(const char *step)
    {
        QTest::qWait(500);
        malloc_trim(0);
        QFile status(QStringLiteral("/proc/self/status"));
        QByteArray anon;
        if (status.open(QIODevice::ReadOnly)) {
            const QByteArray all = status.readAll();
            anon = all.mid(all.indexOf("RssAnon")).split('\n').value(0).simplified();
        }
        qInfo("%-28s heap in use %6.2f MiB, %s", step, mallinfo2().uordblks / 1048576.0,
              anon.constData());
    }

    // The development service's program with the busy chat, on the built-in origin, over TLS.
    static bool startService(QProcess &service)
    {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.addCaCertificates(QSslCertificate::fromPath(TESSIVANE_DEV_CERT_DIR "/dev-ca.pem"));
        QSslConfiguration::setDefaultConfiguration(tls);
        // Its log of every request, were it read into this process, would grow with each.
        service.setStandardErrorFile(QProcess::nullDevice());
        service.start(QCoreApplication::applicationDirPath() +
                          QStringLiteral("/../devservice/tessivane-dev-service"),
                      {QStringLiteral("--port"),
                       QString::number(QUrl(QStringLiteral(TESSIVANE_SERVICE_ORIGIN)).port()),
                       QStringLiteral("--busy-chat"), QStringLiteral("--resume-session"),
                       QStringLiteral("bench")});
        return service.waitForReadyRead(10000);
    }

private Q_SLOTS:
    void steps()
    {
        // The busy feed over plain HTTP, so that no TLS is set up before the steps.
        QJsonArray messages[2];
        QJsonArray adapters;
        {
            DevService service;
            service.keepChatMessages(500);
            QString error;
            QVERIFY2(service.listenPlain(0, &error), qPrintable(error));
            TessivaneApi api;
            api.setBaseUrl(QUrl(service.origin()));
            QSignalSpy signedIn(&api, &TessivaneApi::signedIn);
            api.login(QStringLiteral("demo@tessivane.dev"), QStringLiteral("tessivane-demo"));
            QVERIFY(signedIn.wait());
            QSignalSpy loaded(&api, &TessivaneApi::chatLoaded);
            api.fetchChatMessages();
            QVERIFY(loaded.wait());
            messages[0] = messages[1] = loaded.at(0).at(0).toJsonArray();
            messages[1].removeFirst();
            messages[1].append(messages[0].at(0));
            adapters = loaded.at(0).at(1).toJsonArray();
        }
        QSettings(QStringLiteral("Tessivane"), QStringLiteral("OBS Plugin")).clear();
        hostDouble::reset();
        hostDouble::mainWindow()->show();
        report("OBS's main window");

        auto *controller = new TessivaneController;
        QVERIFY(controller->initialize());
        report("the docks, signed out");
        TessivaneApi &api = TessivaneTestAccess::api(*controller);
        for (int i = 0; i < 10; ++i)
            Q_EMIT api.chatLoaded(messages[i % 2], adapters);
        report("500 chat messages shown");

        QProcess service;
        QVERIFY(startService(service));
        api.setSessionToken(QStringLiteral("bench"));
        for (int i = 0; i < 3; ++i) {
            api.fetchChannels();
            api.fetchLiveStats();
            api.fetchChatMessages();
            QVERIFY(TessivaneTestAccess::settle(api));
        }
        report("three polls over TLS");
        delete controller;
        report("the controller deleted");
        service.terminate();
        service.waitForFinished();
    }

    // The 10 s poll of a streamer signed in for 28 hours, with the docks on screen. Every second
    // poll finds all three replies changed: the streamer, on the website, writes in the chat and
    // switches a live channel, whose statistics follow.
    void endurance()
    {
        QProcess service;
        QVERIFY(startService(service));
        QSettings(QStringLiteral("Tessivane"), QStringLiteral("OBS Plugin")).clear();
        hostDouble::reset();
        hostDouble::mainWindow()->resize(1086, 763);
        hostDouble::mainWindow()->show();
        TessivaneController controller;
        QVERIFY(controller.initialize());
        // No poll but the bench's own.
        for (QTimer *timer : controller.findChildren<QTimer *>())
            timer->stop();
        TessivaneApi &api = TessivaneTestAccess::api(controller);
        TessivaneApi website;
        for (TessivaneApi *client : {&api, &website})
            client->setSessionToken(QStringLiteral("bench"));
        website.setStreamActive(true);
        for (int poll = 1; poll <= 10000; ++poll) {
            if (poll % 2 == 0) {
                website.sendChatMessage(QStringLiteral("poll %1").arg(poll), {}, {});
                website.setChannelSelected(QStringLiteral("kick-demo"), poll % 4 == 0);
            }
            TessivaneTestAccess::drain(website);
            api.fetchChannels();
            api.fetchLiveStats();
            api.fetchChatMessages();
            TessivaneTestAccess::drain(api);
            if (poll == 100 || poll % 2000 == 0)
                report(qPrintable(QStringLiteral("after %1 polls").arg(poll)));
        }
        service.terminate();
        service.waitForFinished();
    }
};

QTEST_MAIN(BenchMemory)
#include "bench-memory.moc"
