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
        lines.sort(); // several at once arrive in any order
        return lines.join(';');
    }

private Q_SLOTS:
    // Missing, blank and mistyped keys; ids of every shape, as the selection's path carries them.
    void cardsShowTheRecordsAndTheirSwitchesPostAtOnce()
    {
        QVERIFY(start());
        QCOMPARE(render(R"([{"id":42,"name":" A ","providerName":" Tw ","provider":"x",
            "status":" On ","selected":true}, {"id":42.9,"name":" ","provider":" kick ",
            "status":" ","selected":1}, {"id":" 5%","name":"%2","selected":"true"}, 7])"),
                 "1 of 4 selected/Tw  |  On/kick  |  Offline/Platform  |  Offline/Platform  |  "
                 "Offline/A/kick/%2/Platform");
        QString colours;
        for (QCheckBox *toggle : dock()->findChildren<QCheckBox *>())
            toggle->click();
        // Lit or dimmed at once, before any reply.
        for (QLabel *name : dock()->findChildren<QLabel *>("TessivaneValue"))
            colours += name->styleSheet().right(9);
        QCOMPARE(colours, " #6f8883; #f9fffe; #f9fffe; #f9fffe;");
        QCOMPARE(wire(),
                 "GET /api/channels ;GET /api/channels ;GET /api/channels ;GET "
                 "/api/channels ;POST /api/channels/%25205%2525/selection "
                 "{\"selected\":true};POST /api/channels//selection {\"selected\":true};POST "
                 "/api/channels/42/selection {\"selected\":false};POST "
                 "/api/channels/42/selection {\"selected\":true}");

        // The count reads whole beside the heading however narrow the dock.
        QCOMPARE(render("[{},{},{},{},{},{},{},{},{},{},{},{},{},{}]").section('/', 0, 0),
                 "0 of 14 selected");
        QDockWidget *frame = hostDouble::dock("tessivane.channels");
        frame->setFloating(true);
        frame->resize(frame->minimumSizeHint());
        frame->show();
        QVERIFY(QTest::qWaitForWindowExposed(frame));
        QLabel *count = withText<QLabel>(dock(), "0 of 14 selected");
        QTRY_COMPARE(count->width(), count->sizeHint().width());
    }

    // A reply rebuilds the list under the open box and deletes its card: the box stays, and its
    // answer is about the channel it names. Return takes the default, Cancel.
    void removalAsksFirstEvenAcrossARebuild()
    {
        QVERIFY(start());
        const QString signedOut = "0 of 0 selected/Sign in to load your connected channels./";
        QCOMPARE(render("{}"), signedOut);
        for (Qt::Key key : {Qt::Key_Return, Qt::Key_Y}) {
            render(R"([{"id":"a 1","name":"Ann"},{"id":2,"name":"Bo"}])");
            QPointer<QFrame> card = dock()->findChild<QFrame *>("TessivanePanel");
            QTimer::singleShot(0, [&]() {
                QPointer<QMessageBox> box =
                    qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
                QCOMPARE(
                    box->windowTitle() + ": " + box->text(),
                    "Remove Channel: Remove Ann from Tessivane? You can connect it again later.");
                // The rebuild stands, the box too.
                QVERIFY(
                    render(R"([{"id":2,"name":"Bo"},{"id":3,"name":"Cy"}])").endsWith("Bo/Cy") &&
                    card.isNull() && box);
                QTest::keyClick(box, key);
            });
            card->findChild<QToolButton *>()->click();
        }
        withText<QPushButton>(dock(), "Refresh")->click(); // with no guard of its own
        QCOMPARE(wire(),
                 "GET /api/channels ;GET /api/channels ;POST /api/channels/a%25201/remove {}");
        api().setSessionToken("tok");
        QCOMPARE(render("[]"),
                 "0 of 0 selected/No channels connected yet. Use Add Channel to connect one./");
        Q_EMIT api().signedOut();
        QCOMPARE(labels("TessivaneMuted") + '/', signedOut);
    }

    // Each entry in turn: the dialogs' titles, echo modes and texts given, answered in turn ("="
    // keeps the text; a dialog beyond the answers gets an empty one, which ends the chain).
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
            seen << QString("%1 %2 %3")
                        .arg(dialog->windowTitle())
                        .arg(dialog->textEchoMode())
                        .arg(dialog->textValue());
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
                                    {"Instagram Live Producer", " Me ; "}};
        for (const auto &entry : entries) {
            answers = entry[1];
            withText<QAction>(menu, entry[0])->trigger();
            TessivaneTestAccess::settle(api());
        }
        QCOMPARE(seen.join(';'), "Add Facebook Live 0 Facebook;Facebook Live Server 0 "
                                 "rtmps://live-api-s.facebook.com:443/rtmp/;Facebook Stream Key 2 ;"
                                 "Add Instagram Live 0 Instagram;Instagram Live Server 0 ");
        QCOMPARE(wire(), "GET /api/channels ;POST /api/connections/facebook/start {};POST "
                         "/api/connections/manual {\"displayName\":\"Facebook\",\"provider\":"
                         "\"facebook\",\"serverUrl\":\"rtmps://live-api-s.facebook.com:443/rtmp/\","
                         "\"streamKey\":\"k\"}");
    }
};

QTEST_MAIN(TestChannels)
#include "test-channels.moc"
