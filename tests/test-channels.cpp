// SPDX-License-Identifier: GPL-2.0-or-later
// The Channels dock: cards from the service's records, selection, removal, adding a channel.
#include "fixture.h"

#include <QCheckBox>
#include <QInputDialog>
#include <QJsonDocument>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QToolButton>

class TestChannels : public ControllerTest {
    Q_OBJECT

    QWidget *dock() const { return panel("tessivane.channels"); }
    // One role's label texts in the dock's order, the count first, once replaced cards are gone.
    QString labels(const char *role) const
    {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QStringList texts;
        for (QLabel *label : dock()->findChildren<QLabel *>(role))
            texts << label->text();
        return texts.join('/');
    }
    QString render(const QByteArray &json)
    {
        Q_EMIT api().channelsLoaded(QJsonDocument::fromJson(json).array(), {});
        return labels("TessivaneMuted") + '/' + labels("TessivaneValue");
    }
    // Each request once the client is quiet, in the order sent.
    QString wire()
    {
        TessivaneTestAccess::settle(api());
        QStringList lines;
        for (const ScriptedService::Request &request : std::as_const(service_.requests))
            lines << request.method + ' ' + request.target + ' ' + request.body;
        return lines.join(';');
    }

private Q_SLOTS:
    // A record; the count, meta and name it shows; its id in the selection's path.
    void cardShowsTheRecordAndItsSwitchPostsAtOnce_data()
    {
        QTest::addColumn<QString>("texts");
        QTest::addColumn<QString>("id");
        const char *rows[][3] = {
            {R"({"id":42,"name":" A ","providerName":" Tw ","provider":"x","status":" On ",
                 "selected":true})",
             "1 of 1 selected/Tw  |  On/A", "42"},
            {R"({"id":42.9,"name":" ","provider":" kick ","status":" ","selected":1})",
             "0 of 1 selected/kick  |  Offline/kick", "42"},
            {R"({"id":" 5%","name":"%2","selected":"true"})",
             "0 of 1 selected/Platform  |  Offline/%2", "%25205%2525"},
        };
        for (const auto &row : rows)
            QTest::newRow(row[0]) << row[1] << row[2];
    }

    void cardShowsTheRecordAndItsSwitchPostsAtOnce()
    {
        QVERIFY(start());
        QTEST(render(QByteArray("[") + QTest::currentDataTag() + ']'), "texts");
        auto *toggle = dock()->findChild<QCheckBox *>();
        const bool was = toggle->isChecked();
        const QString count = labels("TessivaneMuted");
        QCOMPARE(wire(), ""); // a render posts no selection
        toggle->click();
        // Lit or dimmed at once; the count waits for the reload.
        QCOMPARE(dock()->findChild<QLabel *>("TessivaneValue")->styleSheet(),
                 was ? "font-size: 14px; color: #6f8883;" : "font-size: 14px; color: #f9fffe;");
        QCOMPARE(labels("TessivaneMuted"), count);
        QFETCH(QString, id);
        QCOMPARE(wire(), QString("POST /api/channels/%1/selection {\"selected\":%2};GET "
                                 "/api/channels ")
                             .arg(id, was ? "false" : "true"));
    }

    // A reply rebuilds the list under the open box and deletes its card: the box stays, and its
    // answer is about the channel it names. Return takes the default, Cancel.
    void removalAsksFirstEvenAcrossARebuild()
    {
        QVERIFY(start());
        const QString signedOut = "0 of 0 selected/Sign in to load your connected channels./";
        QCOMPARE(render("{}"), signedOut);
        for (Qt::Key key : {Qt::Key_Return, Qt::Key_Y}) {
            QCOMPARE(render(R"([{"id":"a 1","name":"Ann"},{"id":2,"name":"Bo"}])").right(6),
                     "Ann/Bo");
            QPointer<QFrame> card = dock()->findChild<QFrame *>("TessivanePanel");
            QTimer::singleShot(0, [&]() {
                QPointer<QMessageBox> box =
                    qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
                QVERIFY(box);
                QCOMPARE(
                    box->windowTitle() + ": " + box->text(),
                    "Remove Channel: Remove Ann from Tessivane? You can connect it again later.");
                QCOMPARE(render(R"([{"id":2,"name":"Bo"},{"id":3,"name":"Cy"}])").right(5),
                         "Bo/Cy");
                QVERIFY(card.isNull() && box);
                QTest::keyClick(box, key);
            });
            card->findChild<QToolButton *>()->click();
        }
        withText<QPushButton>(dock(), "Refresh")->click(); // with no guard of its own
        QCOMPARE(wire(),
                 "POST /api/channels/a%25201/remove {};GET /api/channels ;GET /api/channels ");
        api().setSessionToken("tok");
        QCOMPARE(render("[]"),
                 "0 of 0 selected/No channels connected yet. Use Add Channel to connect one./");
        Q_EMIT api().signedOut();
        QCOMPARE(labels("TessivaneMuted") + '/', signedOut);
    }

    // Each entry in turn: the dialogs' titles and echo modes, answered in turn ("=" keeps the
    // text; a dialog beyond the answers gets a blank one, which ends the chain), and the wire.
    void addChannelMenu()
    {
        QVERIFY(start());
        QStringList seen;
        QString answers;
        QTimer driver;
        driver.callOnTimeout([&]() {
            auto *dialog = qobject_cast<QInputDialog *>(QApplication::activeModalWidget());
            if (!dialog || !dialog->isVisible())
                return;
            seen << dialog->windowTitle() + ' ' + QString::number(dialog->textEchoMode());
            if (answers.section(';', 0, 0) != "=")
                dialog->setTextValue(answers.section(';', 0, 0));
            answers = answers.section(';', 1);
            dialog->accept();
        });
        driver.start(0);
        auto *menu = dock()->findChild<QMenu *>();
        QCOMPARE(menu->actions().size(), 7);
        QVERIFY(menu->actions().at(4)->isSeparator());
        const char *entries[][2] = {{"Facebook", ""},
                                    {"Facebook Live Producer (manual fallback)", "=;=; k "},
                                    {"Instagram Live Producer", " Me ;="}};
        for (const auto &entry : entries) {
            answers = entry[1];
            withText<QAction>(menu, entry[0])->trigger();
            TessivaneTestAccess::settle(api());
        }
        QCOMPARE(seen.join(';'), "Add Facebook Live 0;Facebook Live Server 0;Facebook Stream Key "
                                 "2;Add Instagram Live 0;Instagram Live Server 0");
        QCOMPARE(wire(), "POST /api/connections/facebook/start {};POST /api/connections/manual "
                         "{\"displayName\":\"Facebook\",\"provider\":\"facebook\",\"serverUrl\":"
                         "\"rtmps://live-api-s.facebook.com:443/rtmp/\",\"streamKey\":\"k\"};"
                         "GET /api/channels ");
    }
};

QTEST_MAIN(TestChannels)
#include "test-channels.moc"
