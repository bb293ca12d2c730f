// SPDX-License-Identifier: GPL-2.0-or-later
// OBS's streaming service from the ingest, the streaming events, and the Stream Health dock.
#include "fixture.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QPushButton>
#include <QThread>

#include <obs-frontend-api.h>

namespace {
const QStringList serviceCalls = QString("data_create,data_set_string server,data_set_string key,"
                                         "data_set_bool use_auth false,service_create rtmp_custom "
                                         "Tessivane,data_release,set_streaming_service,"
                                         "save_streaming_service,service_release")
                                     .split(',');
const QStringList sampleCalls = QString("streaming_active,get_main_window,get_streaming_output,"
                                        "output_get_total_bytes,output_get_total_frames,"
                                        "output_get_frames_dropped,output_release")
                                    .split(',');

QVariantMap service(const QString &server, const QString &key)
{
    return {{"server", server}, {"key", key}, {"use_auth", false}};
}
} // namespace

class TestHealth : public ControllerTest {
    Q_OBJECT

    hostDouble::Streaming &host() { return hostDouble::streaming(); }
    // Connection Health, Upload, Dropped Frames, Optimization, Platforms, the button's caption.
    QStringList shown() const
    {
        QStringList texts;
        QWidget *dock = panel("tessivane.stream-health");
        for (QLabel *label : dock->findChildren<QLabel *>("TessivaneValue"))
            texts << label->text();
        return texts << dock->findChild<QPushButton *>()->text();
    }
    // Clicks Start/Stop; the host calls it made.
    QStringList click()
    {
        hostDouble::calls().clear();
        panel("tessivane.stream-health")->findChild<QPushButton *>()->click();
        return hostDouble::calls();
    }
    QString sample(quint64 bytes)
    {
        host().totalBytes = bytes;
        controller_->refreshHealth();
        return shown()[1];
    }

private Q_SLOTS:
    void ingestReplacesTheStreamingService_data()
    {
        QTest::addColumn<QJsonObject>("ingest");
        QTest::addColumn<bool>("refused");   // by OBS
        QTest::addColumn<QString>("server"); // empty: the earlier service stays
        QTest::newRow("trimmed") << QJsonObject{{"server", " rtmp://a/live "}, {"streamKey", " k "}}
                                 << false << "rtmp://a/live";
        QTest::newRow("blank server")
            << QJsonObject{{"server", " "}, {"ingestUrl", " rtmp://b "}, {"streamKey", "k"}}
            << false << "rtmp://b";
        QTest::newRow("server first")
            << QJsonObject{{"server", "rtmp://a"}, {"ingestUrl", "rtmp://b"}, {"streamKey", "k"}}
            << false << "rtmp://a";
        QTest::newRow("no key") << QJsonObject{{"server", "rtmp://a"}, {"streamKey", " "}} << false
                                << "";
        QTest::newRow("no server") << QJsonObject{{"server", 7}, {"streamKey", "k"}} << false << "";
        QTest::newRow("refused by OBS")
            << QJsonObject{{"server", "rtmp://a"}, {"streamKey", "k"}} << true << "";
    }

    void ingestReplacesTheStreamingService()
    {
        QFETCH(QJsonObject, ingest);
        QFETCH(bool, refused);
        QFETCH(QString, server);
        api().setSessionToken("tok");
        Q_EMIT api().ingestLoaded({{"server", "rtmp://old"}, {"streamKey", "old"}});
        hostDouble::calls().clear();
        Q_EMIT api().requestFailed("", ""); // empties the status line
        host().refuseService = refused;

        Q_EMIT api().ingestLoaded(ingest);
        QCOMPARE(hostDouble::calls(), refused            ? serviceCalls.mid(0, 6)
                                      : server.isEmpty() ? QStringList()
                                                         : serviceCalls);
        QCOMPARE(host().saved,
                 server.isEmpty() ? service("rtmp://old", "old") : service(server, "k"));
        QCOMPARE(statusLines()[0],
                 server.isEmpty() ? ": " : "OBS is ready with this account's unique stream key.");
        // The flag decides what Start Streaming does: start, or ask for the ingest again.
        QCOMPARE(click().contains("streaming_start"), !server.isEmpty());
        QCOMPARE(settledTargets(), server.isEmpty() ? QList<QByteArray>{"/api/stream-engine/ingest"}
                                                    : QList<QByteArray>());
    }

    void signOutEmptiesTheServiceAndStartWaitsForAnIngest()
    {
        api().setSessionToken("tok");
        Q_EMIT api().ingestLoaded({{"server", "rtmp://a"}, {"streamKey", "k"}});
        hostDouble::calls().clear();
        Q_EMIT api().signedOut();
        // Saved twice, so that OBS's backup of the service holds no key either.
        QStringList clearing = serviceCalls;
        clearing.insert(8, "save_streaming_service");
        QCOMPARE(hostDouble::calls(), clearing);
        QCOMPARE(QList({host().saved, host().backup}), QList<QVariantMap>(2, service("", "")));
        // An ingest reply that arrives after sign-out brings nothing back.
        hostDouble::calls().clear();
        Q_EMIT api().ingestLoaded({{"server", "rtmp://a"}, {"streamKey", "k"}});
        QCOMPARE(hostDouble::calls(), QStringList());
        // Signed out: no start and no request however often, each heard as a refusal.
        const QString preparing =
            "Preparing this account's unique stream key. Try again in a moment.";
        QCOMPARE(click() + click(), QStringList(2, "streaming_active"));
        QCOMPARE(statusLines()[0], preparing);
        QCOMPARE(settledTargets(), QList<QByteArray>());
        QCOMPARE(announced(), QStringList({"Signed out.", "!" + preparing, "!" + preparing}));
        // Signed in, the first click only asks; once the record is in, the next one starts.
        api().setSessionToken("tok");
        service_.replies["/api/stream-engine/ingest"].body = R"({"ingestUrl":"x","streamKey":"k"})";
        QCOMPARE(click(), QStringList{"streaming_active"});
        QCOMPARE(settledTargets(), QList<QByteArray>{"/api/stream-engine/ingest"});
        QCOMPARE(announced().last(), preparing);
        QCOMPARE(click(), QStringList({"streaming_active", "streaming_start"}));
        host().active = true;
        QCOMPARE(click(), QStringList({"streaming_active", "streaming_stop"}));
    }

    // Whether the health figures are sampled at once, and the state posted first, then all the
    // targets, sorted.
    void streamingEventsReachTheService_data()
    {
        QTest::addColumn<int>("event");
        QTest::addColumn<QString>("wire");
        const QString reload = " /api/channels /api/live/stats /api/stream/state";
        QTest::newRow("starting") << int(OBS_FRONTEND_EVENT_STREAMING_STARTING) << "/api/channels";
        QTest::newRow("starting, signed out") << int(OBS_FRONTEND_EVENT_STREAMING_STARTING) << "";
        QTest::newRow("started") << int(OBS_FRONTEND_EVENT_STREAMING_STARTED)
                                 << R"({"active":true})" + reload;
        QTest::newRow("started, signed out") << int(OBS_FRONTEND_EVENT_STREAMING_STARTED) << "";
        QTest::newRow("stopped") << int(OBS_FRONTEND_EVENT_STREAMING_STOPPED)
                                 << R"({"active":false})" + reload;
    }

    void streamingEventsReachTheService()
    {
        QFETCH(int, event);
        api().setSessionToken(QString(QTest::currentDataTag()).endsWith("out") ? "" : "tok");
        hostDouble::calls().clear();
        controller_->handleFrontendEvent(event);
        QCOMPARE(hostDouble::calls().contains("streaming_active"),
                 event != OBS_FRONTEND_EVENT_STREAMING_STARTING);
        const QByteArray targets = settledTargets().join(' ');
        // The state goes first; its success reloads the channels and the platforms.
        QTEST(QString(service_.requests.value(0).body + ' ' + targets).trimmed(), "wire");
    }

    // Frames and dropped ones; the verdict and the dropped frames shown. OBS counts frames in an
    // int: a broken output's count below zero reads as none.
    void healthFiguresFollowTheOutput_data()
    {
        QTest::addColumn<int>("frames");
        QTest::addColumn<int>("dropped");
        QTest::addColumn<QString>("shown");
        QTest::newRow("idle") << 1000 << 30 << "Ready|0 (0.00%)";
        QTest::newRow("0.3%") << 1000 << 3 << "Excellent|3 (0.30%)";
        QTest::newRow("0.5%") << 1000 << 5 << "Good|5 (0.50%)";
        QTest::newRow("1.999%") << 100000 << 1999 << "Good|1999 (2.00%)";
        QTest::newRow("2.0%") << 1000 << 20 << "Needs attention|20 (2.00%)";
        QTest::newRow("no frame yet") << 0 << 0 << "Excellent|0 (0.00%)";
        QTest::newRow("no output") << 1000 << 500 << "Excellent|0 (0.00%)";
        QTest::newRow("frames below zero") << -1000 << -5 << "Excellent|0 (0.00%)";
        QTest::newRow("dropped below zero") << 1000 << -3 << "Excellent|0 (0.00%)";
    }

    void healthFiguresFollowTheOutput()
    {
        QFETCH(int, frames);
        QFETCH(int, dropped);
        const bool active = QByteArray(QTest::currentDataTag()) != "idle";
        const bool output = QByteArray(QTest::currentDataTag()) != "no output";
        host() = {active, output, 0, frames, dropped, false, {}, {}};
        hostDouble::calls().clear();
        controller_->refreshHealth();
        const QStringList texts = shown();
        QTEST(texts[0] + '|' + texts[2], "shown");
        QCOMPARE(texts[5], active ? "Stop Streaming" : "Start Streaming");
        QCOMPARE(hostDouble::calls(), sampleCalls.mid(0, !active ? 2 : output ? 7 : 3));
    }

    void uploadRateIsGuardedAndPlatformsCountLive()
    {
        host().active = true;
        QCOMPARE(shown()[1], "0.00 Mbps"); // the start's own sample
        // Back to back, the interval reads 0 or 1 ms and divides as 1.
        QElapsedTimer clock;
        clock.start();
        controller_->refreshHealth();
        const QString fast = sample(1000);
        if (clock.elapsed() < 2)
            QCOMPARE(fast, "8.00 Mbps");
        // A counter that went back gives no rate, and the next sample counts from it.
        QCOMPARE(sample(500), "0.00 Mbps");
        // Decimal megabits over the true interval: 2,500,000 bytes in 200 ms or a bit more.
        clock.restart();
        QThread::msleep(200);
        const QString text = sample(2500500);
        const double mbps = text.chopped(5).toDouble();
        QVERIFY2(mbps <= 100.0 && mbps >= 2e7 / (clock.elapsed() + 2) / 1000, qPrintable(text));

        // The Platforms line counts live statuses, and an empty stats reply leaves it.
        const char *channels = R"([{"selected":true},{"selected":true},{},{"selected":true}])";
        Q_EMIT api().channelsLoaded(QJsonDocument::fromJson(channels).array(), {});
        Q_EMIT api().liveStatsLoaded({});
        QCOMPARE(shown()[4], "3 selected");
        const char *stats =
            R"([{"status":"LIVE"},{"status":" live"},{"status":"connected"},{},{"status":1}])";
        Q_EMIT api().liveStatsLoaded(QJsonDocument::fromJson(stats).array());
        QCOMPARE(shown()[4], "2 live / 3 selected");
    }
};

QTEST_MAIN(TestHealth)
#include "test-health.moc"
