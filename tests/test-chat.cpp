// SPDX-License-Identifier: GPL-2.0-or-later
// The Chat dock: the feed and its badges, the target box, the empty state and sending.
#include "fixture.h"

#include <QComboBox>
#include <QJsonDocument>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QScrollBar>

class TestChat : public ControllerTest {
    Q_OBJECT

    template <typename T> static T *in() { return panel("tessivane.chat")->findChild<T *>(); }
    void reply(const QByteArray &messages, const char *adapters)
    {
        Q_EMIT api().chatLoaded(QJsonDocument::fromJson(messages).array(),
                                QJsonDocument::fromJson(adapters).array());
    }
    static QStringList rows(bool box = false)
    {
        QStringList texts;
        QAbstractItemModel *model = box ? in<QComboBox>()->model() : in<QListWidget>()->model();
        for (int i = 0; i < model->rowCount(); ++i)
            texts << model->index(i, 0).data().toString() +
                         (box ? " = " + model->index(i, 0).data(Qt::UserRole).toString() : "");
        return texts;
    }
    static void choose(const char *target)
    {
        in<QComboBox>()->setCurrentIndex(in<QComboBox>()->findData(QString(target)));
    }

private Q_SLOTS:
    void feedShowsBadgesAnIdleReplyTouchesNothingAndAnEmptyFeedSaysWhy()
    {
        // Before any reply: nothing to send to.
        QCOMPARE(rows() + rows(true),
                 QStringList({"Loading connected platform chats...", "All channels = "}));
        QVERIFY(!in<QLineEdit>()->isEnabled() && !in<QPushButton>()->isEnabled());
        const QByteArray feed =
            R"([{"provider":"YouTube","channel":"C","author":"A","text":"%2 %1"},
            {"provider":"twitch","author":"B\u2028\u202e","text":"\u2066x\ny\u2029\r"},
            {"provider":"KICK"}, {"provider":"facebook"},
            {"provider":"<i>"}, {"provider":"Instagram"})" +
            QByteArray(",5").repeated(54) + "]";
        // Badges are painted once per platform: these come first, out of the table's order.
        reply(R"([{"provider":"kick"},{"provider":"Instagram"}])", "[]");
        reply(feed, "[]");
        QCOMPARE(rows().mid(0, 5),
                 QStringList({"C • A: %2 %1", " • B : x y  ", " • : ", " • : ", " • : "}));
        // Per row: the tool tip, the badge's and the glyph's colour, what a screen reader hears.
        const char *looks[][4] = {{"YOUTUBE", "#ff0033", "#fff", "YouTube"},
                                  {"TWITCH", "#9146ff", "#fff", "Twitch"},
                                  {"KICK", "#53fc18", "#000", "Kick"},
                                  {"FACEBOOK", "#34e6bd", "#fff", "Facebook"},
                                  {"<p>&lt;I&gt;</p>", "#34e6bd", "#fff", "<i>"},
                                  {"INSTAGRAM", "#34e6bd", "#fff", "Instagram"}};
        for (int i = 0; i < 6; ++i) {
            QCOMPARE(in<QListWidget>()->item(i)->toolTip(), looks[i][0]);
            QCOMPARE(in<QListWidget>()->item(i)->data(Qt::AccessibleDescriptionRole), looks[i][3]);
            const QImage icon = in<QListWidget>()->item(i)->icon().pixmap(20, 20).toImage();
            const QRgb *pixels = reinterpret_cast<const QRgb *>(icon.constBits());
            QCOMPARE(icon.pixelColor(0, 0).alpha() + icon.pixelColor(19, 10).alpha(), 0);
            QCOMPARE(icon.pixelColor(10, 2), QColor(looks[i][1]));
            QVERIFY(std::count(pixels, pixels + 400, QColor(looks[i][2]).rgba()) > 5);
        }
        QScrollBar *scroll = in<QListWidget>()->verticalScrollBar();
        QVERIFY(scroll->maximum() > 0 && scroll->value() == scroll->maximum());

        // The streamer reads further up; the same reply comes again and finds both marks.
        in<QListWidget>()->addItem("mark");
        in<QComboBox>()->addItem("mark");
        scroll->setValue(0);
        reply(feed, "[]");
        QCOMPARE(rows().size() + rows(true).size(), 61 + 2);
        QCOMPARE(scroll->value(), 0);
        // The newest thousand messages show.
        reply(R"([{"text":"oldest"})" + QByteArray(",{}").repeated(1000) + "]", "[]");
        QCOMPARE(rows().size(), 1000);
        QVERIFY(!rows().contains(" • : oldest"));

        const char *up = R"([{"connected":true}])";
        const char *down = R"([{"channel":"a","detail":"offline"},{"connected":1},"x"])";
        const char *sevenDown = "[{},{},{},{},{},{},{}]";
        // Only a changed feed rewrites the empty-state row, even when sending becomes possible.
        const char *steps[][3] = {{"[]", "[]", ""},
                                  {"[]", up, ""},
                                  {"[{}]", up, " • : "},
                                  {"[]", up, "Chat connected. Waiting for viewer messages."},
                                  {"[]", down, "Chat connected. Waiting for viewer messages."},
                                  {"[{}]", down, " • : "},
                                  {"[]", down, "a: offline\n: \n: "},
                                  // A row stands five lines high at most.
                                  {"[{}]", sevenDown, " • : "},
                                  {"[]", sevenDown, ": \n: \n: \n: \n: \u2026"}};
        for (const auto &step : steps) {
            reply(step[0], step[1]);
            QCOMPARE(rows(), QStringList{step[2]});
            QVERIFY(in<QLineEdit>()->isEnabled() == (step[1] == up) &&
                    in<QPushButton>()->isEnabled() == (step[1] == up));
        }
        // A field or button losing its chat hands the focus to the feed, and gets it back.
        for (QWidget *control : QWidgetList{in<QLineEdit>(), in<QPushButton>()}) {
            reply("[]", up);
            control->setFocus();
            reply("[]", down);
            QCOMPARE(control->window()->focusWidget(), in<QListWidget>());
            reply("[]", up);
            QCOMPARE(control->window()->focusWidget(), control);
        }
    }

    // A rebuild keeps the row being read current, by its message's id however written.
    void theRowBeingReadStaysCurrent()
    {
        const QByteArray feed = R"([{"id":"m1","text":"a"},{"id":2,"text":"b"},{"text":"c"}])";
        const char *replies[][2] = {{R"([{"id":2,"text":"b"},{"id":"m1","text":"a"}])", " • : a"},
                                    {R"([{"id":2.0,"text":"b"},{"id":"m1","text":"x"}])", " • : x"},
                                    {R"([{"id":"2","text":"b"}])", ""}};
        for (const auto &[next, current] : replies) {
            reply(feed, "[]");
            in<QListWidget>()->setCurrentRow(0);
            reply(next, "[]");
            QListWidgetItem *item = in<QListWidget>()->currentItem();
            QCOMPARE(item ? item->text() : "", current);
        }
        reply(feed, "[]");
        in<QListWidget>()->setCurrentRow(1);
        reply(R"([{"id":2,"text":"moved"},{"id":3}])", "[]");
        QCOMPARE(in<QListWidget>()->currentRow(), 0);
    }

    // A reply is new when its compact JSON differs: the list and the box lose a mark left in them.
    void aReplyIsNewExactlyWhenItsCompactJsonDiffers_data()
    {
        QTest::addColumn<QJsonArray>("last");
        QTest::addColumn<QJsonArray>("next");
        QTest::addColumn<bool>("kept"); // a mark, where the reply is no new one
        const auto json = [](const char *text) {
            return QJsonDocument::fromJson(text).array();
        };
        QTest::newRow("first reply") << QJsonArray() << QJsonArray() << false;
        QTest::newRow("1 and 1.0, -0 and 0") << json("[[1,-0]]") << json("[[1.0,0]]") << true;
        const QJsonValue nan(qQNaN()), null;
        QTest::newRow("NaN and null")
            << QJsonArray{QJsonObject{{"a", nan}}, QJsonArray{nan}, nan}
            << QJsonArray{QJsonObject{{"a", null}}, QJsonArray{null}, null} << true;
        QTest::newRow("beyond 53 bits")
            << json("[[9007199254740993]]") << json("[[9007199254740992]]") << false;
        QTest::newRow("lone surrogates")
            << json(R"([{"a":"\ud800"}])") << json(R"([{"a":"\udbff"}])") << false;
        QTest::newRow("null and no key") << json(R"([{"a":null}])") << json("[{}]") << false;
        QTest::newRow("true, 1 and \"1\"") << json("[[true,1]]") << json(R"([[1,"1"]])") << false;
    }

    void aReplyIsNewExactlyWhenItsCompactJsonDiffers()
    {
        QFETCH(QJsonArray, last);
        QFETCH(QJsonArray, next);
        if (QByteArray(QTest::currentDataTag()) != "first reply")
            Q_EMIT api().chatLoaded(last, last);
        in<QListWidget>()->addItem("mark");
        in<QComboBox>()->addItem("mark");
        Q_EMIT api().chatLoaded(next, next);
        QTEST(rows().contains("mark"), "kept");
        QTEST(rows(true).contains("mark = "), "kept");
    }

    void targetRowsFollowTheConnectedAdaptersAndKeepTheChoice()
    {
        reply("[]", R"([{"connected":true,"provider":"Twitch","channel":"A","channelId":1234567.9},
                        {"connected":true,"provider":"twitch","channel":"B","channelId":" abc "},
                        {"connected":"true","provider":"facebook","channelId":"f"},
                        {"connected":true,"provider":"YouTube","channel":"C","channelId":-3.5},
                        {"connected":true,"provider":"kick","channel":"D","channelId":null},
                        {"connected":true,"provider":"kick","channel":"E","channelId":-1e300}])");
        QStringList box = rows(true);
        std::sort(box.begin() + 1, box.begin() + 4); // the platforms come in a hash's order
        QCOMPARE(
            box,
            QStringList({"All connected channels = all", "All KICK channels = provider:kick",
                         "All TWITCH channels = provider:twitch",
                         "All YOUTUBE channels = provider:youtube", "TWITCH • A = channel:1234567",
                         "TWITCH • B = channel:abc", "YOUTUBE • C = channel:-3",
                         "KICK • D = channel:", "KICK • E = channel:-9223372036854775808"}));
        choose("channel:abc");
        reply("[]", R"([{"connected":true,"provider":"kick"},
                       {"connected":true,"provider":"twitch","channelId":"abc"}])");
        QCOMPARE(in<QComboBox>()->currentData(), "channel:abc");
        reply("[]", R"([{"connected":true,"provider":"twitch"}])");
        QCOMPARE(in<QComboBox>()->currentData(), "all");
    }

    void sendGoesToTheChosenTargetAndClearsOnlyOnSuccess()
    {
        // Blanks alone send nothing and stay in the field.
        reply("[]", R"([{"connected":true}])");
        in<QLineEdit>()->setText("  ");
        QTest::keyClick(in<QLineEdit>(), Qt::Key_Return);
        QCOMPARE(settledTargets(), QList<QByteArray>());
        QCOMPARE(in<QLineEdit>()->text(), "  ");
        const char *sends[][3] = {{"all", R"({"text":"hi"})", "200"},
                                  {"provider:kick", R"({"provider":"kick","text":"hi"})", "200"},
                                  {"channel:42", R"({"channelId":"42","text":"hi"})", "200"},
                                  {"all", R"({"text":"hi"})", "500"}};
        for (const auto &send : sends) {
            // The reload after a send disables sending; this brings it back.
            reply("[]", R"([{"connected":true,"provider":"Kick","channelId":42},
                            {"connected":true,"provider":"kick"}])");
            service_.requests.clear();
            service_.fallback.status = QByteArray(send[2]).toInt();
            choose(send[0]);
            in<QLineEdit>()->setText(" hi ");
            QTest::keyClick(in<QLineEdit>(), Qt::Key_Return);
            const bool sent = service_.fallback.status == 200;
            QCOMPARE(settledTargets().size(), sent ? 2 : 1);
            QCOMPARE(in<QLineEdit>()->text(), sent ? "" : " hi ");
            QCOMPARE(service_.requests.at(0).target + service_.requests.at(0).body,
                     "/api/chat/send" + QByteArray(send[1]));
        }
        QCOMPARE(announced().mid(0, 3), QStringList(3, "Message sent."));
        QVERIFY(announced().size() == 4 && announced()[3].startsWith("!Send chat: "));
    }
};

QTEST_MAIN(TestChat)
#include "test-chat.moc"
