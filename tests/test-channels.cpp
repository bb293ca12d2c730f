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
    QList<QFrame *> cards() const { return dock()->findChildren<QFrame *>("TessivanePanel"); }
    // The texts of the labels of a role, in the dock's order; the count comes first.
    QString label(const char *role) const
    {
        QStringList texts;
        for (QLabel *label : dock()->findChildren<QLabel *>(role))
            texts << label->text();
        return texts.join('/');
    }
    // A reply's render, with the cards it replaced gone.
    void render(const QByteArray &json)
    {
        Q_EMIT api().channelsLoaded(QJsonDocument::fromJson(json).array(), {});
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    // Each request once the client is quiet, in the order sent.
    QStringList wire()
    {
        TessivaneTestAccess::settle(api());
        QStringList lines;
        for (const ScriptedService::Request &request : std::as_const(service_.requests))
            lines << request.method + ' ' + request.target + ' ' + request.body;
        return lines;
    }
    // Answers each modal box in turn from the event loop: "" keeps the text, "-" cancels.
    static void answer(QStringList answers, QStringList *seen)
    {
        QTimer::singleShot(0, [answers, seen]() mutable {
            auto *dialog = qobject_cast<QInputDialog *>(QApplication::activeModalWidget());
            QVERIFY(dialog);
            *seen << QStringList{dialog->windowTitle(), dialog->labelText(), dialog->textValue(),
                                 QString::number(dialog->textEchoMode())}
                         .join('|');
            const QString next = answers.takeFirst();
            if (next == "-")
                return dialog->reject();
            if (!next.isEmpty())
                dialog->setTextValue(next);
            if (!answers.isEmpty())
                answer(answers, seen);
            dialog->accept();
        });
    }

private Q_SLOTS:
    void cardShowsTheRecordAndItsSwitchPostsAtOnce_data()
    {
        QTest::addColumn<QByteArray>("record");
        QTest::addColumn<QString>("texts");
        QTest::addColumn<QString>("request");
        const char *rows[][3] = {
            {R"({"id":42,"name":" Ann ","providerName":" Twitch ","provider":"twitch",
                 "status":" Live ","selected":true})",
             "Ann/Twitch  |  Live", "/api/channels/42/selection {\"selected\":false}"},
            {R"({"id":42.9,"provider":" twitch "})", "twitch/twitch  |  Offline",
             "/api/channels/42/selection {\"selected\":true}"},
            {R"({"id":" a ","name":" ","provider":"kick","status":" ","selected":1})",
             "kick/kick  |  Offline", "/api/channels/%2520a%2520/selection {\"selected\":true}"},
            {R"({"id":"50%","name":"%2","selected":"true"})", "%2/Platform  |  Offline",
             "/api/channels/50%2525/selection {\"selected\":true}"},
            {"7", "Platform/Platform  |  Offline", "/api/channels//selection {\"selected\":true}"},
        };
        for (const auto &row : rows)
            QTest::newRow(row[2]) << QByteArray(row[0]) << row[1] << row[2];
    }

    void cardShowsTheRecordAndItsSwitchPostsAtOnce()
    {
        QFETCH(QByteArray, record);
        QFETCH(QString, request);
        QVERIFY(start());
        render('[' + record + ']');
        QTEST(label("TessivaneValue") + '/' + label("TessivaneMuted").section('/', 1), "texts");
        auto *toggle = cards().at(0)->findChild<QCheckBox *>();
        const bool selected = toggle->isChecked();
        const QString count = QString("%1 of 1 selected").arg(int(selected));
        QCOMPARE(label("TessivaneMuted").section('/', 0, 0), count);
        QCOMPARE(cards().at(0)->findChild<QToolButton *>()->accessibleName(),
                 "Remove " + label("TessivaneValue"));
        QCOMPARE(wire(), QStringList()); // a render posts no selection

        auto *nameLabel = cards().at(0)->findChild<QLabel *>("TessivaneValue");
        QCOMPARE(nameLabel->styleSheet().contains("#f9fffe"), selected);
        toggle->click();
        QCOMPARE(nameLabel->styleSheet().contains("#f9fffe"), !selected);
        QCOMPARE(label("TessivaneMuted").section('/', 0, 0), count);
        QCOMPARE(wire(), QStringList({"POST " + request, "GET /api/channels "}));
    }

    void emptyListTellsWhetherSomeoneIsSignedIn()
    {
        QVERIFY(start());
        const QString signedOut = "Sign in to load your connected channels.";
        QCOMPARE(label("TessivaneMuted"), "0 selected/" + signedOut);
        withText<QPushButton>(dock(), "Refresh")->click();
        QCOMPARE(wire(), QStringList{"GET /api/channels "});
        api().setSessionToken("tok");
        render("[]");
        QCOMPARE(label("TessivaneMuted"),
                 "0 of 0 selected/No channels connected yet. Use Add Channel to connect one.");
        render(R"([{"selected":true},{}])");
        QCOMPARE(label("TessivaneMuted"),
                 "1 of 2 selected/Platform  |  Offline/Platform  |  Offline");
        Q_EMIT api().signedOut();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCOMPARE(label("TessivaneMuted"), "0 of 0 selected/" + signedOut);
    }

    // The box stays open over a rebuild that deletes its card, and its answer is about the
    // channel it names.
    void removalAsksFirstEvenAcrossARebuild_data()
    {
        QTest::addColumn<int>("key");
        QTest::addColumn<QStringList>("sent");
        QTest::newRow("yes") << int(Qt::Key_Y)
                             << QStringList(
                                    {"POST /api/channels/a%25201/remove {}", "GET /api/channels "});
        QTest::newRow("return cancels") << int(Qt::Key_Return) << QStringList();
    }

    void removalAsksFirstEvenAcrossARebuild()
    {
        QFETCH(int, key);
        QVERIFY(start());
        render(R"([{"id":"a 1","name":"Ann"},{"id":2,"name":"Bo"}])");
        QPointer<QFrame> card = cards().at(0);
        QTimer::singleShot(0, [&]() {
            QPointer<QMessageBox> box =
                qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            QVERIFY(box);
            QCOMPARE(box->windowTitle(), "Remove Channel");
            QCOMPARE(box->text(), "Remove Ann from Tessivane? You can connect it again later.");
            Q_EMIT api().channelsLoaded(
                QJsonDocument::fromJson(R"([{"id":2,"name":"Bo"},{"id":3,"name":"Cy"}])").array(),
                {});
            QTRY_VERIFY(card.isNull());
            QVERIFY(box);
            QTest::keyClick(box, Qt::Key(key));
        });
        card->findChild<QToolButton *>()->click();
        QCOMPARE(label("TessivaneValue"), "Bo/Cy");
        QTEST(wire(), "sent");
    }

    void addChannelMenu_data()
    {
        QTest::addColumn<QString>("entry");
        QTest::addColumn<QStringList>("answers");
        QTest::addColumn<QStringList>("dialogs");
        QTest::addColumn<QStringList>("sent");
        const QString fb = "rtmps://live-api-s.facebook.com:443/rtmp/";
        const QStringList fbDialogs = {
            "Add Facebook Live|Channel or account name:|Facebook|0",
            "Facebook Live Server|Paste the Server URL from Facebook Live Producer:|" + fb + "|0",
            "Facebook Stream Key|Paste the stream key. Tessivane encrypts it before storage:||2"};
        QTest::newRow("connect") << "Facebook" << QStringList() << QStringList()
                                 << QStringList{"POST /api/connections/facebook/start {}"};
        QTest::newRow("facebook") << "Facebook Live Producer (manual fallback)"
                                  << QStringList({"", "", " k "}) << fbDialogs
                                  << QStringList({"POST /api/connections/manual "
                                                  "{\"displayName\":\"Facebook\",\"provider\":"
                                                  "\"facebook\",\"serverUrl\":\"" +
                                                      fb + "\",\"streamKey\":\"k\"}",
                                                  "GET /api/channels "});
        QTest::newRow("blank key") << "Facebook Live Producer (manual fallback)"
                                   << QStringList({"", "", "  "}) << fbDialogs << QStringList();
        QTest::newRow("instagram cancelled")
            << "Instagram Live Producer" << QStringList({" Me ", "-"})
            << QStringList({"Add Instagram Live|Channel or account name:|Instagram|0",
                            "Instagram Live Server|Paste the Server URL from Instagram Live "
                            "Producer:||0"})
            << QStringList();
    }

    void addChannelMenu()
    {
        QFETCH(QString, entry);
        QFETCH(QStringList, answers);
        QVERIFY(start());
        QStringList seen;
        if (!answers.isEmpty())
            answer(answers, &seen);
        auto *menu = dock()->findChild<QToolButton *>()->menu();
        QCOMPARE(menu->actions().size(), 7);
        QVERIFY(menu->actions().at(4)->isSeparator());
        withText<QAction>(menu, entry)->trigger();
        QTEST(seen, "dialogs");
        QTEST(wire(), "sent");
    }
};

QTEST_MAIN(TestChannels)
#include "test-channels.moc"
