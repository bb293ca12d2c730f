// SPDX-License-Identifier: GPL-2.0-or-later
// A render of 200 channel cards from one reply, beside the cost of parsing that reply.
#include "fixture.h"

#include <QJsonDocument>

class BenchChannels : public QObject {
    Q_OBJECT

    QByteArray reply_;

private Q_SLOTS:
    void initTestCase()
    {
        QJsonArray channels;
        const char *providers[] = {"twitch", "youtube", "kick", "facebook", "instagram"};
        for (int i = 0; i < 200; ++i)
            channels.append(
                QJsonObject{{"id", i % 2 ? QJsonValue(i) : QJsonValue(QString("ch %1").arg(i))},
                            {"provider", providers[i % 5]},
                            {"providerName", QString(providers[i % 5]).toUpper()},
                            {"name", QString("Channel number %1").arg(i)},
                            {"status", i % 7 ? "Connected" : "Offline"},
                            {"selected", i % 3 == 0}});
        reply_ =
            QJsonDocument(QJsonObject{{"channels", channels}, {"user", QJsonObject{{"id", 1}}}})
                .toJson(QJsonDocument::Compact);
    }

    // The reference: what the client does with the reply before the dock sees it.
    void parseReply()
    {
        QBENCHMARK
        {
            const QJsonObject reply = QJsonDocument::fromJson(reply_).object();
            QCOMPARE(reply.value("channels").toArray().size(), 200);
        }
    }

    void renderCards_data()
    {
        QTest::addColumn<bool>("drawn");
        QTest::newRow("cards built") << false;
        QTest::newRow("cards built, laid out and painted") << true;
    }

    // Reply to cards on a shown dock, the old cards deleted; then, as the event loop would after
    // the reaction, laid out and painted.
    void renderCards()
    {
        QFETCH(bool, drawn);
        hostDouble::reset();
        TessivaneController controller;
        QVERIFY(controller.initialize());
        TessivaneApi &api = TessivaneTestAccess::api(controller);
        const QJsonObject reply = QJsonDocument::fromJson(reply_).object();
        QBENCHMARK
        {
            Q_EMIT api.channelsLoaded(reply.value("channels").toArray(), {});
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            if (drawn)
                QCoreApplication::processEvents();
        }
        QCOMPARE(hostDouble::dock("tessivane.channels")
                     ->widget()
                     ->findChildren<QFrame *>("TessivanePanel")
                     .size(),
                 200);
    }
};

QTEST_MAIN(BenchChannels)
#include "bench-channels.moc"
