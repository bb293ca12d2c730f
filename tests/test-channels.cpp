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
    // One role's label texts in the dock's order, the count first, once the replaced cards are
    // gone.
    QString labels(const char *role) const
    {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QStringList texts;
        for (QLabel *label : dock()->findChildren<QLabel *>(role))
            texts << label->text();
        return texts.join('/');
    }
    void render(const QByteArray &json)
    {
        Q_EMIT api().channelsLoaded(QJsonDocument::fromJson(json).array(), {});
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
    void cardShowsTheRecordAndItsSwitchPostsAtOnce_data()
    {
        QTest::addColumn<QString>("texts");
        QTest::addColumn<QString>("id");
        const char *rows[][3] = {
            {R"({"id":42,"name":" Ann ","providerName":" Tw ","provider":"x","status":" Live ",
                 "selected":true})",
             "1 of 1 selected/Tw  |  Live/Ann", "42"},
            {R"({"id":42.9,"provider":" kick "})", "0 of 1 selected/kick  |  Offline/kick", "42"},
            {R"({"id":" a ","name":" ","status":" ","selected":1})",
             "0 of 1 selected/Platform  |  Offline/Platform", "%2520a%2520"},
            {R"({"id":"50%","name":"%2","selected":"true"})",
             "0 of 1 selected/Platform  |  Offline/%2", "50%2525"},
            {"7", "0 of 1 selected/Platform  |  Offline/Platform", ""},
        };
        for (const auto &row : rows)
            QTest::newRow(row[0]) << row[1] << row[2];
    }

    void cardShowsTheRecordAndItsSwitchPostsAtOnce()
    {
        QVERIFY(start());
        render(QByteArray("[") + QTest::currentDataTag() + ']');
        const QString count = labels("TessivaneMuted");
        QTEST(count + '/' + labels("TessivaneValue"), "texts");
        auto *name = dock()->findChild<QLabel *>("TessivaneValue");
        const bool was = dock()->findChild<QCheckBox *>()->isChecked();
        QCOMPARE(wire(), ""); // a render posts no selection
        dock()->findChild<QCheckBox *>()->click();
        // Lit or dimmed at once; the count waits for the reload.
        QCOMPARE(name->styleSheet(),
                 was ? "font-size: 14px; color: #6f8883;" : "font-size: 14px; color: #f9fffe;");
        QCOMPARE(labels("TessivaneMuted"), count);
        QFETCH(QString, id);
        QCOMPARE(wire(), QString("POST /api/channels/%1/selection {\"selected\":%2};GET "
                                 "/api/channels ")
                             .arg(id, was ? "false" : "true"));
    }

    void emptyListTellsWhetherSomeoneIsSignedIn()
    {
        QVERIFY(start());
        const QString signedOut = "Sign in to load your connected channels.";
        QCOMPARE(labels("TessivaneMuted"), "0 selected/" + signedOut);
        withText<QPushButton>(dock(), "Refresh")->click(); // with no guard of its own
        QCOMPARE(wire(), "GET /api/channels ");
        api().setSessionToken("tok");
        render("[]");
        QCOMPARE(labels("TessivaneMuted"),
                 "0 of 0 selected/No channels connected yet. Use Add Channel to connect one.");
        Q_EMIT api().signedOut();
        QCOMPARE(labels("TessivaneMuted"), "0 of 0 selected/" + signedOut);
    }

    // A reply rebuilds the list under the open box and deletes its card: the box stays, and its
    // answer is about the channel it names. Return takes the default, Cancel.
    void removalAsksFirstEvenAcrossARebuild_data()
    {
        QTest::addColumn<int>("key");
        QTest::addColumn<QString>("sent");
        QTest::newRow("yes") << int(Qt::Key_Y)
                             << "POST /api/channels/a%25201/remove {};GET /api/channels ";
        QTest::newRow("return") << int(Qt::Key_Return) << "";
    }

    void removalAsksFirstEvenAcrossARebuild()
    {
        QVERIFY(start());
        render(R"([{"id":"a 1","name":"Ann"},{"id":2,"name":"Bo"}])");
        QPointer<QFrame> card = dock()->findChild<QFrame *>("TessivanePanel");
        QTimer::singleShot(0, [&]() {
            QPointer<QMessageBox> box =
                qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            QVERIFY(box);
            QCOMPARE(box->windowTitle() + ": " + box->text(),
                     "Remove Channel: Remove Ann from Tessivane? You can connect it again later.");
            render(R"([{"id":2,"name":"Bo"},{"id":3,"name":"Cy"}])");
            QCOMPARE(labels("TessivaneValue"), "Bo/Cy");
            QVERIFY(card.isNull() && box);
            QFETCH(int, key);
            QTest::keyClick(box, Qt::Key(key));
        });
        card->findChild<QToolButton *>()->click();
        QTEST(wire(), "sent");
    }

    // Each dialog's title and echo mode, and the answers given in turn ("=" keeps the text).
    void addChannelMenu_data()
    {
        QTest::addColumn<QString>("answers");
        QTest::addColumn<QString>("dialogs");
        QTest::addColumn<QString>("sent");
        const char *rows[][4] = {
            {"Facebook", "", "", "POST /api/connections/facebook/start {}"},
            {"Facebook Live Producer (manual fallback)", "=;=; k ",
             "Add Facebook Live 0;Facebook Live Server 0;Facebook Stream Key 2",
             R"(POST /api/connections/manual {"displayName":"Facebook","provider":"facebook",)"
             R"("serverUrl":"rtmps://live-api-s.facebook.com:443/rtmp/","streamKey":"k"};)"
             "GET /api/channels "},
            {"Instagram Live Producer", " Me ;=", "Add Instagram Live 0;Instagram Live Server 0",
             ""},
        };
        for (const auto &row : rows)
            QTest::newRow(row[0]) << row[1] << row[2] << row[3];
    }

    void addChannelMenu()
    {
        QFETCH(QString, answers);
        QVERIFY(start());
        QStringList seen;
        QTimer driver;
        driver.callOnTimeout([&]() {
            auto *dialog = qobject_cast<QInputDialog *>(QApplication::activeModalWidget());
            if (!dialog || !dialog->isVisible())
                return;
            seen << dialog->windowTitle() + ' ' + QString::number(dialog->textEchoMode());
            if (answers.isEmpty())
                return dialog->reject(); // one dialog too many
            if (answers.section(';', 0, 0) != "=")
                dialog->setTextValue(answers.section(';', 0, 0));
            answers = answers.section(';', 1);
            dialog->accept();
        });
        driver.start(0);
        auto *menu = dock()->findChild<QMenu *>();
        QCOMPARE(menu->actions().size(), 7);
        QVERIFY(menu->actions().at(4)->isSeparator());
        withText<QAction>(menu, QTest::currentDataTag())->trigger();
        QTEST(seen.join(';'), "dialogs");
        QTEST(wire(), "sent");
    }
};

QTEST_MAIN(TestChannels)
#include "test-channels.moc"
