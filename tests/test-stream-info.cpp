// SPDX-License-Identifier: GPL-2.0-or-later
// The Stream Information form: load, save, the summary of a save, and the category search boxes.
#include "fixture.h"

#include <QAbstractItemView>
#include <QComboBox>
#include <QJsonDocument>
#include <QLineEdit>
#include <QPushButton>
#include <QTextEdit>

namespace {
QJsonArray array(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).array();
}
} // namespace

class TestStreamInfo : public ControllerTest {
    Q_OBJECT

    QWidget *dock() const { return panel("tessivane.stream-information"); }
    // Title, go-live note and tags; the boxes keep their line edits to themselves.
    QLineEdit *edit(int i) const
    {
        return dock()->findChildren<QLineEdit *>(Qt::FindDirectChildrenOnly).at(i);
    }
    QTextEdit *description() const { return dock()->findChild<QTextEdit *>(); }
    QComboBox *box(const QString &provider) const
    {
        return dock()->findChildren<QComboBox *>().at(provider == "twitch" ? 0 : 1);
    }
    QString status() const { return dock()->findChildren<QLabel *>("TessivaneMuted")[1]->text(); }
    QStringList form() const
    {
        return {edit(0)->text(),
                description()->toPlainText(),
                edit(1)->text(),
                box("twitch")->currentText(),
                box("kick")->currentText(),
                edit(2)->text()};
    }

private Q_SLOTS:
    void saveSendsTheTrimmedForm_data()
    {
        QTest::addColumn<QString>("tags");
        QTest::addColumn<QByteArray>("sent");
        QTest::newRow("empty parts skipped") << "a, b,,c" << QByteArray(R"(["a","b","c"])");
        QTest::newRow("a blank part kept") << " a, ,b ," << QByteArray(R"(["a","","b"])");
        QTest::newRow("none") << "" << QByteArray("[]");
    }

    void saveSendsTheTrimmedForm()
    {
        QFETCH(QString, tags);
        QFETCH(QByteArray, sent);
        QVERIFY(start());
        edit(0)->setText("  %1 title ");
        description()->setPlainText("\n  line 1\n line 2 \n\n");
        edit(1)->setText(" note ");
        box("twitch")->setCurrentText(" Not A Category ");
        box("kick")->setCurrentText("");
        edit(2)->setText(tags);
        withText<QPushButton>(dock(), "Save Stream Information")->click();
        QCOMPARE(status(), "Saving...");
        QCOMPARE(settledTargets(), QList<QByteArray>{"/api/stream-profile"});
        QCOMPARE(service_.requests[0].method, "POST");
        QCOMPARE(service_.requests[0].body,
                 R"({"description":"line 1\n line 2","kickCategory":"","notification":"note",)"
                 R"("tags":)" +
                     sent + R"(,"title":"%1 title","twitchCategory":"Not A Category"})");
    }

    void loadFillsTheFormWithoutSearchingAndSavesItBackUnchanged()
    {
        QVERIFY(start());
        const QByteArray profile = R"({"description":"d\ne","kickCategory":"Just Chatting",)"
                                   R"("notification":"n","tags":["a","","b"],"title":"t",)"
                                   R"("twitchCategory":"Celeste"})";
        Q_EMIT api().streamProfileLoaded(QJsonDocument::fromJson(profile).object());
        QCOMPARE(form(), QStringList({"t", "d\ne", "n", "Celeste", "Just Chatting", "a, , b"}));
        QCOMPARE(status(), "Synced with Tessivane.");
        withText<QPushButton>(dock(), "Save Stream Information")->click();
        QCOMPARE(settledTargets(), QList<QByteArray>{"/api/stream-profile"});
        QCOMPARE(service_.requests[0].body, profile);

        // A reply without "profile" empties every field.
        Q_EMIT api().streamProfileLoaded({});
        QCOMPARE(form(), QStringList(6));
        QCOMPARE(status(), "Synced with Tessivane.");
    }

    void summaryOfASave_data()
    {
        QTest::addColumn<QByteArray>("results");
        QTest::addColumn<QString>("text");
        QTest::newRow("none") << QByteArray("[]")
                              << "Stream information pushed to 0 connected channel(s).";
        QTest::newRow("all") << QByteArray(R"([{"ok":true},{"ok":true,"error":"x"}])")
                             << "Stream information pushed to 2 connected channel(s).";
        QTest::newRow("some") << QByteArray(
                                     R"([{"channel":"A","error":"no"},{"ok":true},{"ok":"true",)"
                                     R"("channel":"%2","error":"%1"}])")
                              << "Updated 1. A: no %2: %1";
        QTest::newRow("bare failure") << QByteArray("[7]") << "Updated 0. : ";
    }

    void summaryOfASave()
    {
        QFETCH(QByteArray, results);
        QVERIFY(start());
        edit(0)->setText("typed");
        Q_EMIT api().streamProfileSaved({{"title", "saved"}}, array(results));
        QTEST(status(), "text");
        QCOMPARE(edit(0)->text(), "typed");
    }

    void typingSearchesFromTwoCharacters_data()
    {
        QTest::addColumn<QString>("provider");
        QTest::addColumn<QString>("before");
        QTest::addColumn<QString>("keys");
        QTest::addColumn<QList<QByteArray>>("targets");
        const QByteArray ju = "/api/categories%3Fprovider=kick&q=ju";
        QTest::newRow("one letter") << "twitch" << "" << "j" << QList<QByteArray>();
        QTest::newRow("blank, letter, blank") << "twitch" << "" << " j " << QList<QByteArray>();
        QTest::newRow("each key from two on") << "kick" << "" << " ju " << QList{ju, ju};
        QTest::newRow("deleted back to one") << "kick" << "ju" << "\b" << QList<QByteArray>();
        QTest::newRow("blank escaped twice")
            << "twitch" << "just chattin" << "g"
            << QList<QByteArray>{"/api/categories%3Fprovider=twitch&q=just%2520chatting"};
        QTest::newRow("& ? %") << "kick" << "a&b?c%" << "d"
                               << QList<QByteArray>{
                                      "/api/categories%3Fprovider=kick&q=a%2526b%3Fc%2525d"};
    }

    void typingSearchesFromTwoCharacters()
    {
        QFETCH(QString, provider);
        QFETCH(QString, before);
        QFETCH(QString, keys);
        QVERIFY(start());
        QLineEdit *line = box(provider)->lineEdit();
        line->setText(before);
        QTest::keyClicks(line, keys);
        QTEST(settledTargets(), "targets");
    }

    void refillKeepsTheTypedText()
    {
        QVERIFY(start());
        hostDouble::mainWindow()->show();
        QVERIFY(QTest::qWaitForWindowActive(hostDouble::mainWindow()));
        QComboBox *twitch = box("twitch");
        QComboBox *kick = box("kick");
        twitch->lineEdit()->setText("Ju");
        kick->lineEdit()->setText("Zz");
        kick->lineEdit()->setFocus();
        const QJsonArray three = array(R"([{"name":"Jump King","id":"1"},{"name":"Ju"},{}])");

        // The box the streamer left fills silently.
        Q_EMIT api().streamProfileSaved({}, {});
        Q_EMIT api().categoriesLoaded("twitch", three);
        QCOMPARE(twitch->count(), 3);
        QCOMPARE(twitch->itemText(0), "Jump King");
        QCOMPARE(twitch->itemData(0), "1");
        QCOMPARE(twitch->itemText(2), "");
        QCOMPARE(twitch->currentText(), "Ju");
        QVERIFY(!twitch->view()->isVisible());
        QCOMPARE(status(), "Stream information pushed to 0 connected channel(s).");

        Q_EMIT api().categoriesLoaded("kick", {});
        QCOMPARE(kick->count(), 0);
        QCOMPARE(kick->currentText(), "Zz");
        QVERIFY(!kick->view()->isVisible());
        QCOMPARE(status(), "No matching kick categories.");

        twitch->lineEdit()->setFocus();
        Q_EMIT api().categoriesLoaded("twitch", three);
        QVERIFY(twitch->view()->isVisible());
        QCOMPARE(twitch->currentText(), "Ju");
        QCOMPARE(twitch->lineEdit()->cursorPosition(), 2);
        // The pop-up takes the focus, and with it the status line's news of the suggestions.
        QCOMPARE(status(), "No matching kick categories.");
        QCOMPARE(settledTargets(), QList<QByteArray>());
    }
};

QTEST_MAIN(TestStreamInfo)
#include "test-stream-info.moc"
