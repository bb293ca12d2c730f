// SPDX-License-Identifier: GPL-2.0-or-later
// The Stream Health dock's periodic work: one sample of OBS's output every two seconds, and the
// platforms line on every statistics reply. The reference is the parse of that reply alone.
#include "fixture.h"

#include <QJsonDocument>

namespace {
const QByteArray statsReply = R"({"stats":[
    {"channelId":42,"provider":"twitch","status":"live"},
    {"channelId":"yt 7","provider":"youtube","status":"live"},
    {"channelId":"kick-demo","provider":"kick","status":"offline"},
    {"channelId":"fb page","provider":"facebook","status":"offline"},
    {"channelId":"ig_1","provider":"instagram","status":"live"}]})";
} // namespace

class BenchHealth : public QObject {
    Q_OBJECT

    TessivaneController *controller_ = nullptr;

private Q_SLOTS:
    void initTestCase()
    {
        hostDouble::reset();
        hostDouble::streaming() = {true, true, 0, 9000, 12, false, {}, {}};
        controller_ = new TessivaneController;
        QVERIFY(controller_->initialize());
    }
    void cleanupTestCase() { delete controller_; }
    void init() { hostDouble::calls().clear(); }

    void referenceParseStatsReply()
    {
        QBENCHMARK
        {
            const QJsonArray stats = QJsonDocument::fromJson(statsReply)["stats"].toArray();
            QVERIFY(stats.size() == 5);
        }
    }

    void healthSample()
    {
        quint64 bytes = 0;
        QBENCHMARK
        {
            hostDouble::calls().clear();
            hostDouble::streaming().totalBytes = bytes += 250000;
            controller_->refreshHealth();
        }
    }

    void platformsLine()
    {
        TessivaneApi &api = TessivaneTestAccess::api(*controller_);
        const QJsonArray stats = QJsonDocument::fromJson(statsReply)["stats"].toArray();
        QBENCHMARK
        {
            Q_EMIT api.liveStatsLoaded(stats);
        }
    }
};

QTEST_MAIN(BenchHealth)
#include "bench-health.moc"
