// SPDX-License-Identifier: GPL-2.0-or-later
// The Channels dock: cards from the service's records, selection, removal, adding a channel.
#include "fixture.h"

#include <QCheckBox>
#include <QInputDialog>
#include <QJsonDocument>
#include <QMenu>
#include <QPushButton>
#include <QStyleOptionButton>
#include <QToolButton>

class TestChannels : public ControllerTest {
    Q_OBJECT

    QWidget *dock() const { return panel("tessivane.channels"); }
    // The labels' texts in the dock's order, the count first, once replaced cards are gone.
    QString render(const QByteArray &json)
    {
        Q_EMIT api().channelsLoaded(QJsonDocument::fromJson(json).array(), {});
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QStringList texts;
        for (const char *role : {"TessivaneMuted", "TessivaneValue"})
            for (QLabel *label : dock()->findChildren<QLabel *>(role))
                texts << label->text();
        return texts.join('/');
    }

private Q_SLOTS:
    // Missing, blank and mistyped keys; ids of every shape, as the selection's path carries them.
    void cardsShowTheRecordsAndTheirSwitchesPostAtOnce()
    {
        QCOMPARE(render(R"([{"id":42,"name":" A ","providerName":" Tw ","provider":"x",
            "status":" On ","selected":true}, {"id":42.9,"name":" ","provider":" kick ",
            "status":" ","selected":1}, {"id":" 5%","name":"%2\n\u202eX","selected":"true"}, 7,
            {"id":-1e300}])"),
                 "1 of 5 selected/Tw  |  On/kick  |  Offline/Platform  |  Offline/Platform  |  "
                 "Offline/Platform  |  Offline/A/kick/%2 X/Platform/Platform");
        for (QCheckBox *toggle : dock()->findChildren<QCheckBox *>()) {
            // The switch is a pill, wider than high.
            QStyleOptionButton option;
            option.initFrom(toggle);
            const QRect pill =
                toggle->style()->subElementRect(QStyle::SE_CheckBoxIndicator, &option, toggle);
            QVERIFY(pill.width() >= pill.height() + 8);
            toggle->click();
        }
        // A name from the service shows as it is, markup and all.
        render(R"([{"name":"<b>B</b>"}])");
        QLabel *markup = withText<QLabel>(dock(), "<b>B</b>");
        QVERIFY(markup->sizeHint().width() >= markup->fontMetrics().horizontalAdvance("<b>B</b>"));
        const QString select = "POST /api/channels/%1/selection {\"selected\":%2}";
        QCOMPARE(wire(), QStringList(5, "GET /api/channels ")
                             << select.arg("%25205%2525", "true")
                             << select.arg("-9200000000000000000", "true") << select.arg("", "true")
                             << select.arg("42", "false") << select.arg("42", "true"));

        // The count reads whole in the narrowest dock, beyond the fifty records with cards.
        QCOMPARE(render("[{}" + QByteArray(",{}").repeated(59) + "]").section('/', 0, 0),
                 "0 of 60 selected");
        QCOMPARE(dock()->findChildren<QCheckBox *>().size(), 50);
        QDockWidget *frame = hostDouble::dock("tessivane.channels");
        frame->setFloating(true);
        frame->resize(frame->minimumSizeHint());
        frame->show();
        QVERIFY(QTest::qWaitForWindowExposed(frame));
        QLabel *count = withText<QLabel>(dock(), "0 of 60 selected");
        QTRY_COMPARE(count->width(), count->sizeHint().width());
    }

    // A rebuild under the open box deletes its card: the box stays, about the channel it names.
    // Return takes the default, Cancel.
    void removalAsksFirstEvenAcrossARebuild()
    {
        const QString signedOut = "0 of 0 selected/Sign in to load your connected channels.";
        QCOMPARE(render("{}"), signedOut);
        for (Qt::Key key : {Qt::Key_Return, Qt::Key_Y}) {
            render(R"([{"id":"a 1","name":"Ann"},{"id":2,"name":"Bo"}])");
            QPointer<QFrame> card = dock()->findChild<QFrame *>("TessivanePanel");
            answer_ = [&](QDialog *box) {
                // The rebuild stands, the box too.
                QVERIFY(render(R"([{"id":2,"name":"Bo"},{"id":3,"name":"Cy"}])").endsWith("Bo/Cy"));
                QVERIFY(card.isNull() && box->isVisible());
                QTest::keyClick(box, key);
            };
            card->findChild<QToolButton *>()->click();
        }
        QCOMPARE(modals_, QStringList(2, "Remove Channel|Remove Ann from Tessivane? You can "
                                         "connect it again later."));
        withText<QPushButton>(dock(), "Refresh")->click(); // with no guard of its own
        QCOMPARE(wire(), QStringList({"GET /api/channels ", "GET /api/channels ",
                                      "POST /api/channels/a%25201/remove {}"}));
        api().setSessionToken("tok");
        QCOMPARE(render("[]"),
                 "0 of 0 selected/No channels connected yet. Use Add Channel to connect one.");
        Q_EMIT api().signedOut();
        QCOMPARE(render("[]"), signedOut);
    }

    // Tab walks Refresh, each card's switch and cross, then the next dock; a rebuild gives the
    // focus back to the channel's control, else the card in its place, the last, or Refresh.
    void focusAndTabOrderSurviveRebuilds()
    {
        const auto name = [](QWidget *widget) {
            return widget->accessibleName().isEmpty() ? widget->property("text").toString()
                                                      : widget->accessibleName();
        };
        const auto give = [this](const char *control) {
            for (QWidget *widget : dock()->findChildren<QWidget *>())
                if (widget->accessibleName() == control)
                    widget->setFocus();
        };
        render(R"([{"id":1,"name":"A"},{"id":"b","name":"B"},{"id":3,"name":"C"}])");
        QStringList order;
        for (QWidget *walk = withText<QPushButton>(dock(), "Refresh"); order.size() < 8;
             walk = walk->nextInFocusChain())
            if ((walk->focusPolicy() & Qt::TabFocus) && walk->isVisibleTo(walk->window()))
                order << name(walk);
        QCOMPARE(order, QStringList({"Refresh", "Include A", "Remove A", "Include B", "Remove B",
                                     "Include C", "Remove C", "Title"}));

        // The focus before, the next list, and the focus after.
        const char *steps[][3] = {
            {"Include B", R"([{"id":3,"name":"C"},{"id":"b","name":"B"}])", "Include B"},
            {"Remove C", R"([{"id":3,"name":"C"},{"id":"b","name":"B"}])", "Remove C"},
            {"Remove C", R"([{"id":"b","name":"B"},{"id":1,"name":"A"}])", "Remove B"},
            {"Remove A", R"([{"id":"b","name":"B"}])", "Remove B"},
            {"Include B", "[]", "Refresh"},
        };
        for (const auto &[before, list, after] : steps) {
            give(before);
            QPointer<QWidget> old = dock()->window()->focusWidget();
            render(list);
            QVERIFY(old.isNull());
            QCOMPARE(name(dock()->window()->focusWidget()), after);
        }
        panel("tessivane.stream-information")->findChild<QLineEdit *>()->setFocus();
        render(R"([{"id":1,"name":"A"}])");
        QCOMPARE(name(dock()->window()->focusWidget()), "Title");
    }

    // Each entry in turn, its dialogs answered in turn ("=" keeps the text; past the answers an
    // empty one ends the chain); a platform's sign-in page opens in the browser.
    void addChannelMenu()
    {
        QString answers;
        answer_ = [&](QDialog *dialog) {
            auto *input = static_cast<QInputDialog *>(dialog);
            if (answers.section(';', 0, 0) != "=")
                input->setTextValue(answers.section(';', 0, 0));
            answers = answers.section(';', 1);
            input->accept();
        };
        const QHash<QString, QString> typed = {
            {"Facebook Live Producer (manual fallback)", "=;=; k "},
            {"Instagram Live Producer", " Me ; "}};
        service_.replies["/api/connections/facebook/start"].body = R"({"url":"https://fb/auth"})";
        QStringList entries;
        for (QAction *entry : dock()->findChild<QMenu *>()->actions()) {
            entries << entry->text();
            answers = typed.value(entry->text());
            entry->trigger();
            TessivaneTestAccess::settle(api());
        }
        QCOMPARE(entries, QStringList({"Twitch", "YouTube", "Kick", "Facebook", "",
                                       "Facebook Live Producer (manual fallback)",
                                       "Instagram Live Producer"}));
        QCOMPARE(opened_, QList<QUrl>{QUrl("https://fb/auth")});
        QCOMPARE(modals_,
                 QStringList({"Add Facebook Live|Channel or account name:|0|Facebook",
                              "Facebook Live Server|Paste the Server URL from Facebook Live "
                              "Producer:|0|rtmps://live-api-s.facebook.com:443/rtmp/",
                              "Facebook Stream Key|Paste the stream key. Tessivane encrypts it "
                              "before storage:|2|",
                              "Add Instagram Live|Channel or account name:|0|Instagram",
                              "Instagram Live Server|Paste the Server URL from Instagram Live "
                              "Producer:|0|"}));
        QCOMPARE(wire(),
                 QStringList({"GET /api/channels ", "POST /api/connections/facebook/start {}",
                              "POST /api/connections/kick/start {}",
                              "POST /api/connections/manual {\"displayName\":\"Facebook\","
                              "\"provider\":\"facebook\",\"serverUrl\":\"rtmps://"
                              "live-api-s.facebook.com:443/rtmp/\",\"streamKey\":\"k\"}",
                              "POST /api/connections/twitch/start {}",
                              "POST /api/connections/youtube/start {}"}));
    }
};

QTEST_MAIN(TestChannels)
#include "test-channels.moc"
