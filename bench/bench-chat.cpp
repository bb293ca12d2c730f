// SPDX-License-Identifier: GPL-2.0-or-later
// The chat reply handler: it runs on OBS's UI thread at every poll for as long as a streamer is
// signed in. A reply that changed must fit well within a frame (16.7 ms); an idle one should cost
// little more than parsing the reply's bytes, measured beside it.
//   QT_QPA_PLATFORM=offscreen build/bench/bench-chat
#include "dev-service.h"
#include "fixture.h"

#include <QJsonDocument>
#include <QSignalSpy>

class BenchChat : public QObject {
    Q_OBJECT

    QByteArray reply_;
    // 0 and 1: two polls apart; 2: the first once more, parsed from its own bytes as each poll is.
    QJsonArray messages_[3];
    QJsonArray adapters_[3];
    TessivaneController *controller_ = nullptr;
    int next_ = 0; // kept across runs, since QtTest may run a benchmark more than once

    void show(int messages, int adapters)
    {
        Q_EMIT TessivaneTestAccess::api(*controller_)
            .chatLoaded(messages_[messages], adapters_[adapters]);
    }

private Q_SLOTS:
    void initTestCase()
    {
        // The busy feed of the development service, as the client receives it.
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
        messages_[0] = loaded.at(0).at(0).toJsonArray();
        QCOMPARE(messages_[0].size(), 500);

        // A second channel on every platform makes ten adapters.
        const QJsonArray demoAdapters = loaded.at(0).at(1).toJsonArray();
        for (const QJsonValue &value : demoAdapters) {
            QJsonObject adapter = value.toObject();
            adapters_[0].append(adapter);
            adapter.insert(QStringLiteral("channel"),
                           adapter.value(QStringLiteral("channel")).toString() + " 2");
            adapter.insert(QStringLiteral("channelId"),
                           "second-" + adapter.value(QStringLiteral("provider")).toString());
            adapters_[0].append(adapter);
        }
        QCOMPARE(adapters_[0].size(), 10);
        reply_ = QJsonDocument(QJsonObject{{QStringLiteral("messages"), messages_[0]},
                                           {QStringLiteral("adapters"), adapters_[0]}})
                     .toJson(QJsonDocument::Compact);

        // The next poll: one new message at the end, the oldest gone, a channel disconnected.
        messages_[1] = messages_[0];
        messages_[1].removeFirst();
        QJsonObject newest = messages_[1].last().toObject();
        newest.insert(QStringLiteral("id"), QStringLiteral("next"));
        messages_[1].append(newest);
        adapters_[1] = adapters_[0];
        QJsonObject dropped = adapters_[1].at(2).toObject();
        dropped.insert(QStringLiteral("connected"), false);
        adapters_[1].replace(2, dropped);

        const QJsonObject again = QJsonDocument::fromJson(reply_).object();
        messages_[2] = again.value(QStringLiteral("messages")).toArray();
        adapters_[2] = again.value(QStringLiteral("adapters")).toArray();

        hostDouble::reset();
        controller_ = new TessivaneController;
        QVERIFY(controller_->initialize());
    }

    void cleanupTestCase() { delete controller_; }

    // The reference: what the client does with the same bytes before the handler runs.
    void parseReply()
    {
        QBENCHMARK
        {
            const QJsonObject reply = QJsonDocument::fromJson(reply_).object();
            messages_[0] = reply.value(QStringLiteral("messages")).toArray();
            adapters_[0] = reply.value(QStringLiteral("adapters")).toArray();
        }
    }

    // Most polls of a busy stream bring new messages; some find a channel come or go as well.
    void changedReply_data()
    {
        QTest::addColumn<bool>("adaptersToo");
        QTest::newRow("messages") << false;
        QTest::newRow("messages and adapters") << true;
    }

    void changedReply()
    {
        QFETCH(bool, adaptersToo);
        QBENCHMARK
        {
            next_ = 1 - next_;
            show(next_, adaptersToo ? next_ : 0);
        }
    }

    void idleReply()
    {
        show(0, 0);
        QBENCHMARK
        {
            show(2, 2);
        }
    }
};

QTEST_MAIN(BenchChat)
#include "bench-chat.moc"
