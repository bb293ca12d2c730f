// SPDX-License-Identifier: GPL-2.0-or-later
// The Stream Information form: load, save, the summary of a save, and the category search boxes.
#include "fixture.h"

#include <QAbstractItemView>
#include <QComboBox>
#include <QJsonDocument>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QTextBoundaryFinder>
#include <QTextEdit>

class TestStreamInfo : public ControllerTest {
    Q_OBJECT

    QWidget *dock() const { return panel("tessivane.stream-information"); }
    QLineEdit *box(int i) const { return dock()->findChildren<QComboBox *>()[i]->lineEdit(); }
    QString status() const { return statusLines()[1]; }
    // What Save sends, as "METHOD body", while the status line says "Saving...".
    QByteArray save()
    {
        service_.requests.clear();
        withText<QPushButton>(dock(), "Save Stream Information")->click();
        if (status() != "Saving..." || settledTargets() != QList<QByteArray>{"/api/stream-profile"})
            return {};
        return service_.requests[0].method + " " + service_.requests[0].body;
    }

private Q_SLOTS:
    void loadSaveAndSummary()
    {
        // Title, go-live note and tags; each box keeps its line edit to itself.
        const auto edit = dock()->findChild<QScrollArea *>()->widget()->findChildren<QLineEdit *>(
            Qt::FindDirectChildrenOnly);
        const QByteArray profile = R"({"description":"d\ne","kickCategory":"Just Chatting",)"
                                   R"("notification":"n","tags":["a","b"],"title":"t",)"
                                   R"("twitchCategory":"Celeste"})";
        Q_EMIT api().streamProfileLoaded(QJsonDocument::fromJson(profile).object());
        QCOMPARE(edit[2]->text(), "a, b");
        QCOMPARE(status(), "Synced with Tessivane.");
        QCOMPARE(save(), "POST " + profile);

        edit[0]->setText("  %1 t ");
        dock()->findChild<QTextEdit *>()->setPlainText("\n  d\n e \n\n");
        box(0)->setText(" Not Offered ");
        edit[2]->setText(" a, b,,c , ,d,");
        QCOMPARE(save(), R"(POST {"description":"d\n e","kickCategory":"Just Chatting",)"
                         R"("notification":"n","tags":["a","b","c","","d"],"title":"%1 t",)"
                         R"("twitchCategory":"Not Offered"})");
        // A reply without a profile empties every field; loading starts no search.
        Q_EMIT api().streamProfileLoaded({});
        QCOMPARE(save(), R"(POST {"description":"","kickCategory":"","notification":"","tags":[],)"
                         R"("title":"","twitchCategory":""})");

        // The service's copy is not shown back; an "ok" that is no true fails; "%1" stays.
        Q_EMIT api().streamProfileSaved({{"title", "saved"}}, {});
        QCOMPARE(status(), "Stream information pushed to 0 connected channel(s).");
        Q_EMIT api().streamProfileSaved({},
                                        QJsonDocument::fromJson(R"([{"channel":"A","error":"no"},
            {"ok":true},{"ok":"true","channel":"%2","error":"%1"},7])")
                                            .array());
        QCOMPARE(status(), "Updated 1. A: no %2: %1 : ");
        // Each press and each summary is heard; one with a failure at once.
        const QStringList saved = {"Saving...",
                                   "Stream information pushed to 0 connected channel(s)."};
        QCOMPARE(announced(), saved + saved + saved + saved.mid(1)
                                  << "!Updated 1. A: no %2: %1 : ");
        QCOMPARE(edit[0]->text(), "");
    }

    // Service texts show whole up to 1 KB in a label, 64 KB in a field, wrapped inside the
    // narrowest dock; beyond, cut (what a long word costs is a benchmark's).
    void longTextsStayInsideTheDock_data()
    {
        QTest::addColumn<QString>("word");
        QTest::addColumn<int>("kept"); // of the summary, when it is cut
        QTest::newRow("an address") << "https://example.com/" + QString(300, 'a') << 0;
        QTest::newRow("a 256 KB word") << QString(262144, 'x') << 1024;
        QTest::newRow("emoji") << "x" + QString::fromUtf8("\U0001F600").repeated(3000) << 1023;
        QTest::newRow("joined emoji and flags")
            << QString::fromUtf8("\U0001F469\u200D\U0001F4BB\U0001F1EB\U0001F1F7").repeated(40)
            << 0;
        QTest::newRow("Thai with its marks")
            << QString::fromUtf8("\u0E01\u0E31").repeated(120) << 0;
    }

    void longTextsStayInsideTheDock()
    {
        QFETCH(QString, word);
        QDockWidget *frame = hostDouble::dock("tessivane.stream-information");
        frame->setFloating(true);
        const int narrowest = dock()->minimumSizeHint().width();
        frame->resize(frame->minimumSizeHint().width(), 600);
        frame->show();
        Q_EMIT api().streamProfileLoaded({{"description", word}});
        Q_EMIT api().streamProfileSaved({}, {QJsonObject{{"channel", "c"}, {"error", word}}});
        QLabel *line = dock()->findChildren<QLabel *>("TessivaneMuted")[1];
        auto *description = dock()->findChild<QTextEdit *>();
        QVERIFY(QTest::qWaitForWindowExposed(frame));
        QTRY_VERIFY(line->height() >= line->heightForWidth(line->width()));

        const QString full = "Updated 0. c: " + word;
        QFETCH(int, kept);
        QCOMPARE(QString(line->text()).remove(QChar(0x200B)),
                 kept ? full.left(kept) + QChar(0x2026) : full);
        QTextBoundaryFinder characters(QTextBoundaryFinder::Grapheme, full);
        qsizetype at = 0;
        for (const QChar c : line->text()) {
            characters.setPosition(at);
            QVERIFY2(c != QChar(0x200B) || characters.isAtBoundary(), "a break inside a character");
            at += c != QChar(0x200B);
        }
        QCOMPARE(dock()->minimumSizeHint().width(), narrowest);
        QVERIFY(line->width() < dock()->width());
        QCOMPARE(description->toPlainText(),
                 word.size() > 65536 ? word.left(65536) + QChar(0x2026) : word);
        // Only a word of letters too long to lay out scrolls sideways; emoji break between them.
        QCOMPARE(description->horizontalScrollBar()->maximum() > 0, kept == 1024);
    }

    void categoryBoxes()
    {
        // Box, text before, keys typed, and the target that each of those keys asks for.
        const char *searches[][4] = {
            {"0", "", " j ", ""},
            {"1", "j", "u ", "/api/categories%3Fprovider=kick&q=ju"},
            {"1", "ju", "\b", ""},
            {"1", "a&b?c%", "d", "/api/categories%3Fprovider=kick&q=a%2526b%3Fc%2525d"},
        };
        for (const auto &[index, before, keys, target] : searches) {
            service_.requests.clear();
            box(*index - '0')->setText(before);
            QTest::keyClicks(box(*index - '0'), keys);
            QCOMPARE(settledTargets(), QList<QByteArray>(*target ? qstrlen(keys) : 0, target));
        }

        hostDouble::mainWindow()->show();
        QVERIFY(QTest::qWaitForWindowActive(hostDouble::mainWindow()));
        const auto state = [this](int i) {
            auto *combo = qobject_cast<QComboBox *>(box(i)->parent());
            return combo->currentText() + "|" + combo->itemText(0) + combo->itemData(0).toString() +
                   "|" + QString::number(combo->count()) +
                   (combo->view()->isVisible() ? "|open|" : "|shut|") + status();
        };
        const QJsonArray three =
            QJsonDocument::fromJson(R"([{"name":"Jump King","id":"1"},{"name":"Ju"},{}])").array();
        // Return never makes the typed text an item.
        box(0)->setText("Ju");
        QTest::keyClick(box(0), Qt::Key_Return);
        QCOMPARE(state(0), "Ju||0|shut|");
        box(1)->setText("Zz");
        box(1)->setFocus();
        // A click on the dock's empty space or its scroll area leaves the focus there.
        auto *scroll = dock()->findChild<QScrollArea *>();
        QTest::mouseClick(scroll->widget(), Qt::LeftButton, {},
                          {1, scroll->widget()->height() - 1});
        QTest::mouseClick(scroll, Qt::LeftButton, {}, {scroll->width() - 1, 1});
        QVERIFY(box(1)->hasFocus());
        Q_EMIT api().categoriesLoaded("twitch", three);
        QCOMPARE(state(0), "Ju|Jump King1|3|shut|");
        Q_EMIT api().categoriesLoaded("kick", {});
        QCOMPARE(state(1), "Zz||0|shut|No matching kick categories.");
        // Open suggestions hold the keyboard, yet a key types and searches, a refill keeps the
        // list open, Down and Return pick.
        box(0)->setFocus();
        Q_EMIT api().categoriesLoaded("twitch", three);
        QCOMPARE(state(0), "Ju|Jump King1|3|open|3 twitch category suggestions loaded.");
        QWindow *window = hostDouble::mainWindow()->windowHandle();
        service_.requests.clear();
        QTest::keyClick(window, 'm');
        QCOMPARE(settledTargets(), {"/api/categories%3Fprovider=twitch&q=Jum"});
        Q_EMIT api().categoriesLoaded("kick", {});
        Q_EMIT api().categoriesLoaded("twitch", three);
        QCOMPARE(state(0), "Jum|Jump King1|3|open|3 twitch category suggestions loaded.");
        QTest::keyClick(window, Qt::Key_Down);
        QTest::keyClick(window, Qt::Key_Return);
        QCOMPARE(state(0), "Ju|Jump King1|3|shut|3 twitch category suggestions loaded.");
        box(0)->setText("Ju");
        Q_EMIT api().categoriesLoaded("twitch", three);
        QTest::keyClick(window, Qt::Key_Escape);
        QCOMPARE(state(0), "Ju|Jump King1|3|shut|3 twitch category suggestions loaded.");
        // Only a box the streamer types in tells how its search went.
        const QString found = "3 twitch category suggestions loaded.";
        QCOMPARE(announced(), QStringList({"No matching kick categories.", found,
                                           "No matching twitch categories.", found, found}));
    }
};

QTEST_MAIN(TestStreamInfo)
#include "test-stream-info.moc"
