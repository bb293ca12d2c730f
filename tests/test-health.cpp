// SPDX-License-Identifier: GPL-2.0-or-later
// OBS's streaming service from the account's ingest, the streaming events, and the Stream
// Health dock's figures and button.
#include "fixture.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QPushButton>
#include <QStackedWidget>
#include <QThread>

#include <obs-frontend-api.h>

namespace {
const QStringList serviceCalls = {"data_create",
                                  "data_set_string server",
                                  "data_set_string key",
                                  "data_set_bool use_auth false",
                                  "service_create rtmp_custom Tessivane",
                                  "data_release",
                                  "set_streaming_service",
                                  "save_streaming_service",
                                  "service_release"};
const QStringList sampleCalls = {"streaming_active",        "get_main_window",
                                 "get_streaming_output",    "output_get_total_bytes",
                                 "output_get_total_frames", "output_get_frames_dropped",
                                 "output_release"};

QVariantMap service(const QString &server, const QString &key)
{
    return {{"server", server}, {"key", key}, {"use_auth", false}};
}

} // namespace

class TestHealth : public ControllerTest {
    Q_OBJECT

    hostDouble::Streaming &host() { return hostDouble::streaming(); }
    QLabel *status() const
    {
        auto *stack = panel("tessivane.account")->findChild<QStackedWidget *>();
        return stack->widget(0)->findChildren<QLabel *>().constLast();
    }
    // Connection Health, Upload, Dropped Frames, Optimization, Platforms.
    QStringList values() const
    {
        QStringList texts;
        for (QLabel *label :
             panel("tessivane.stream-health")->findChildren<QLabel *>("TessivaneValue"))
            texts << label->text();
        return texts;
    }
    // Clicks Start/Stop and answers the host calls it made.
    QStringList click()
    {
        hostDouble::calls().clear();
        panel("tessivane.stream-health")->findChild<QPushButton *>()->click();
        return hostDouble::calls();
    }
    // Samples the output with these counters and answers the upload text.
    QString sample(quint64 bytes)
    {
        host().totalBytes = bytes;
        controller_->refreshHealth();
        return values()[1];
    }

private Q_SLOTS:
    void ingestReplacesTheStreamingService_data()
    {
        QTest::addColumn<QJsonObject>("ingest");
        QTest::addColumn<bool>("refused");
        QTest::addColumn<QString>("server"); // empty: the earlier service stays
        QTest::newRow("trimmed") << QJsonObject{{"server", " rtmp://a/live "}, {"streamKey", " k "}}
                                 << false << "rtmp://a/live";
        QTest::newRow("ingestUrl when server is blank")
            << QJsonObject{{"server", "  "}, {"ingestUrl", " rtmp://b "}, {"streamKey", "k"}}
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
        QVERIFY(start());
        api().setSessionToken("tok");
        Q_EMIT api().ingestLoaded(QJsonObject{{"server", "rtmp://old"}, {"streamKey", "old"}});
        status()->clear();
        hostDouble::calls().clear();
        host().refuseService = refused;

        Q_EMIT api().ingestLoaded(ingest);
        QCOMPARE(hostDouble::calls(), refused            ? serviceCalls.mid(0, 6)
                                      : server.isEmpty() ? QStringList()
                                                         : serviceCalls);
        QCOMPARE(host().saved,
                 server.isEmpty() ? service("rtmp://old", "old") : service(server, "k"));
        QCOMPARE(status()->text(),
                 server.isEmpty() ? "" : "OBS is ready with this account's unique stream key.");
        // The flag decides what Start Streaming does: start, or ask for the ingest again.
        QCOMPARE(click().contains("streaming_start"), !server.isEmpty());
        QCOMPARE(settledTargets(), server.isEmpty() ? QList<QByteArray>{"/api/stream-engine/ingest"}
                                                    : QList<QByteArray>());
    }

    void signOutEmptiesTheServiceAndStartWaitsForAnIngest()
    {
        QVERIFY(start());
        Q_EMIT api().ingestLoaded(QJsonObject{{"server", "rtmp://a"}, {"streamKey", "k"}});
        hostDouble::calls().clear();
        Q_EMIT api().signedOut();
        QCOMPARE(hostDouble::calls(), serviceCalls);
        QCOMPARE(host().saved, service("", ""));

        // Signed out: the text each time, and no start and no request however often.
        for (int i = 0; i < 2; ++i) {
            QCOMPARE(click(), QStringList{"streaming_active"});
            QCOMPARE(status()->text(),
                     "Preparing this account's unique stream key. Try again in a moment.");
        }
        QCOMPARE(settledTargets(), QList<QByteArray>());

        // Signed in, the first click only asks; once the record is in, the next one starts.
        api().setSessionToken("tok");
        service_.replies["/api/stream-engine/ingest"] = {
            200, "{\"ingestUrl\":\"rtmp://b\",\"streamKey\":\"k\"}"};
        QCOMPARE(click(), QStringList{"streaming_active"});
        QCOMPARE(settledTargets(), QList<QByteArray>{"/api/stream-engine/ingest"});
        QCOMPARE(click(), QStringList({"streaming_active", "streaming_start"}));
        host().active = true;
        QCOMPARE(click(), QStringList({"streaming_active", "streaming_stop"}));
    }

    void streamingEventsReachTheService_data()
    {
        QTest::addColumn<int>("event");
        QTest::addColumn<bool>("signedIn");
        QTest::addColumn<bool>("refreshed");
        QTest::addColumn<QByteArray>("state"); // the body posted, if any
        QTest::addColumn<QList<QByteArray>>("targets");
        const QList<QByteArray> none,
            reload = {"/api/channels", "/api/live/stats", "/api/stream/state"};
        QTest::newRow("starting") << int(OBS_FRONTEND_EVENT_STREAMING_STARTING) << true << false
                                  << QByteArray() << QList<QByteArray>{"/api/channels"};
        QTest::newRow("starting, signed out")
            << int(OBS_FRONTEND_EVENT_STREAMING_STARTING) << false << false << QByteArray() << none;
        QTest::newRow("started") << int(OBS_FRONTEND_EVENT_STREAMING_STARTED) << true << true
                                 << QByteArray(R"({"active":true})") << reload;
        QTest::newRow("started, signed out")
            << int(OBS_FRONTEND_EVENT_STREAMING_STARTED) << false << true << QByteArray() << none;
        QTest::newRow("stopping") << int(OBS_FRONTEND_EVENT_STREAMING_STOPPING) << true << false
                                  << QByteArray() << none;
        QTest::newRow("stopped") << int(OBS_FRONTEND_EVENT_STREAMING_STOPPED) << true << true
                                 << QByteArray(R"({"active":false})") << reload;
        QTest::newRow("stopped, signed out")
            << int(OBS_FRONTEND_EVENT_STREAMING_STOPPED) << false << true << QByteArray() << none;
    }

    void streamingEventsReachTheService()
    {
        QFETCH(int, event);
        QFETCH(bool, signedIn);
        QFETCH(QByteArray, state);
        QVERIFY(start());
        api().setSessionToken(signedIn ? "tok" : "");
        host().active = event == OBS_FRONTEND_EVENT_STREAMING_STARTED;
        hostDouble::calls().clear();
        controller_->handleFrontendEvent(event);
        QTEST(hostDouble::calls().contains("streaming_active"), "refreshed");
        QTEST(settledTargets(), "targets");
        // The state goes first; its success reloads the channels and the platforms.
        if (!state.isEmpty()) {
            QCOMPARE(service_.requests[0].target, "/api/stream/state");
            QCOMPARE(service_.requests[0].body, state);
        }
    }

    void healthFiguresFollowTheOutput_data()
    {
        QTest::addColumn<bool>("active");
        QTest::addColumn<bool>("output");
        QTest::addColumn<int>("frames");
        QTest::addColumn<int>("dropped");
        QTest::addColumn<QStringList>("shown"); // verdict, dropped frames, caption
        QTest::newRow("idle") << false << true << 1000 << 30
                              << QStringList({"Ready", "0 (0.00%)", "Start Streaming"});
        QTest::newRow("0.3%") << true << true << 1000 << 3
                              << QStringList({"Excellent", "3 (0.30%)", "Stop Streaming"});
        QTest::newRow("0.5%") << true << true << 1000 << 5
                              << QStringList({"Good", "5 (0.50%)", "Stop Streaming"});
        QTest::newRow("1.999%") << true << true << 100000 << 1999
                                << QStringList({"Good", "1999 (2.00%)", "Stop Streaming"});
        QTest::newRow("2.0%") << true << true << 1000 << 20
                              << QStringList({"Needs attention", "20 (2.00%)", "Stop Streaming"});
        QTest::newRow("no frame yet")
            << true << true << 0 << 0 << QStringList({"Excellent", "0 (0.00%)", "Stop Streaming"});
        QTest::newRow("no output") << true << false << 1000 << 500
                                   << QStringList({"Excellent", "0 (0.00%)", "Stop Streaming"});
    }

    void healthFiguresFollowTheOutput()
    {
        QFETCH(bool, active);
        QFETCH(bool, output);
        QFETCH(QStringList, shown);
        QVERIFY(start());
        host().active = active;
        host().hasOutput = output;
        QFETCH(int, frames);
        QFETCH(int, dropped);
        host().totalFrames = frames;
        host().droppedFrames = dropped;
        hostDouble::calls().clear();
        controller_->refreshHealth();
        const QStringList texts = values();
        const QString caption =
            panel("tessivane.stream-health")->findChild<QPushButton *>()->text();
        QCOMPARE(QStringList({texts[0], texts[2], caption}), shown);
        QCOMPARE(texts[3], "Automatic routing (source quality)");
        QCOMPARE(hostDouble::calls(), !active  ? sampleCalls.mid(0, 2)
                                      : output ? sampleCalls
                                               : sampleCalls.mid(0, 3));
    }

    void uploadRateIsGuarded()
    {
        QVERIFY(start());
        host().active = true;
        QCOMPARE(values()[1], "0.00 Mbps"); // the start's own sample
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
        const double mbps = sample(2500500).chopped(5).toDouble();
        QVERIFY2(mbps <= 100.0 && mbps >= 2e7 / (clock.elapsed() + 2) / 1000,
                 qPrintable(values()[1]));
        QVERIFY(QRegularExpression(R"(^\d+\.\d\d Mbps$)").match(values()[1]).hasMatch());
    }

    void platformsLineCountsLiveStatuses()
    {
        QVERIFY(start());
        Q_EMIT api().channelsLoaded(
            QJsonDocument::fromJson(R"([{"selected":true},{"selected":true},{},{"selected":true}])")
                .array(),
            {});
        Q_EMIT api().liveStatsLoaded({});
        QCOMPARE(values()[4], "3 selected");
        Q_EMIT api().liveStatsLoaded(
            QJsonDocument::fromJson(
                R"([{"status":"LIVE"},{"status":" live"},{"status":"connected"},{},{"status":1}])")
                .array());
        QCOMPARE(values()[4], "2 live / 3 selected");
    }
};

QTEST_MAIN(TestHealth)
#include "test-health.moc"
