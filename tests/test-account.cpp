// SPDX-License-Identifier: GPL-2.0-or-later
// Signing in and out on the Account dock, the stored session and the account labels.
#include "fixture.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QLineEdit>
#include <QPushButton>
#include <QStackedWidget>

class TestAccount : public ControllerTest {
    Q_OBJECT

    QWidget *account() const { return panel("tessivane.account"); }
    QStackedWidget *stack() const { return account()->findChild<QStackedWidget *>(); }
    QLineEdit *email() const { return account()->findChildren<QLineEdit *>().at(0); }
    QLineEdit *password() const { return account()->findChildren<QLineEdit *>().at(1); }
    // The account page's name and detail.
    QString shown() const { return texts(stack()->widget(1)).mid(0, 2).join('|'); }
    void press(const char *text) { withText<QPushButton>(account(), text)->click(); }

private Q_SLOTS:
    void signInSendsTheFormAndOpensTheAccountPage()
    {
        hostDouble::dock("tessivane.chat")->close();

        const QByteArray user = R"({"name":"Demo","email":"demo@tessivane.dev","plan":"Pro"})";
        service_.replies["/api/auth/login"] = {200,
                                               R"({"sessionToken":" tok-1 ","user":)" + user + "}"};
        service_.replies["/api/me"] = {200, R"({"user":)" + user + "}"};
        QTest::keyClicks(email(), "  demo@tessivane.dev ");
        QTest::keyClicks(password(), " pass word ");
        // Return in the e-mail field does nothing; in the password field it signs in.
        QTest::keyClick(email(), Qt::Key_Return);
        QTest::keyClick(password(), Qt::Key_Return);
        QCOMPARE(statusLines()[0], "Signing in...");
        QTRY_COMPARE(stack()->currentIndex(), 1);

        // One sign-in, then the refresh with the session.
        QCOMPARE(settledTargets(),
                 QList<QByteArray>({"/api/auth/login", "/api/channels", "/api/chat/messages",
                                    "/api/live/stats", "/api/me", "/api/stream-engine/ingest",
                                    "/api/stream-profile"}));
        for (const ScriptedService::Request &request : service_.requests.mid(1))
            QCOMPARE(request.header("Authorization"), "Bearer tok-1");
        QCOMPARE(shown(), "Demo|Pro plan\ndemo@tessivane.dev");
        QCOMPARE(announced(), QStringList({"Signing in...", "Signed in as Demo."}));
        QCOMPARE(password()->text() + email()->text(), "  demo@tessivane.dev ");
        QCOMPARE(password()->echoMode(), QLineEdit::Password);
        QVERIFY(docksShown());
        // Kept as received, since reading trims it, and for the streamer's eyes only.
        QCOMPARE(store().value("sessionToken"), " tok-1 ");
        QCOMPARE(QFileInfo(store().fileName()).permissions() & 0x0077, 0);
    }

    // A token of blanks, stored or signed in with, is no session: nothing is asked with it.
    void aTokenOfBlanksIsNoSession()
    {
        store().setValue("sessionToken", "   ");
        QVERIFY(restart());
        QCOMPARE(settledTargets(), QList<QByteArray>());
        QVERIFY(docksShown());
        service_.replies["/api/auth/login"] = {200, R"({"sessionToken":"   "})"};
        press("Sign In");
        QTRY_COMPARE(stack()->currentIndex(), 1);
        QCOMPARE(settledTargets(), QList<QByteArray>{"/api/auth/login"});
    }

    void restoredSessionAsksForTheAccountTwiceAndLeavesTheDocksAlone()
    {
        store().setValue("sessionToken", "  tok-9 ");
        service_.replies["/api/me"] = {200, R"({"user":{"email":"a@b.c"}})"};
        QVERIFY(restart());
        // The account page waits for the first reply; OBS's own layout decides on the docks.
        QCOMPARE(stack()->currentIndex(), 0);
        QVERIFY(!hostDouble::dock("tessivane.account")->isVisibleTo(hostDouble::mainWindow()));
        QCOMPARE(
            settledTargets(),
            QList<QByteArray>({"/api/channels", "/api/chat/messages", "/api/live/stats", "/api/me",
                               "/api/me", "/api/stream-engine/ingest", "/api/stream-profile"}));
        for (const ScriptedService::Request &request : std::as_const(service_.requests))
            QCOMPARE(request.header("Authorization"), "Bearer tok-9");
        QTRY_COMPARE(shown(), "a@b.c|Free plan\na@b.c");
        QCOMPARE(stack()->currentIndex(), 1);
    }

    void accountLabelsFollowTheRecord_data()
    {
        QTest::addColumn<QByteArray>("user");
        QTest::addColumn<QString>("shown");
        QTest::newRow("plan record")
            << QByteArray(R"({"name":" Ann ","email":" a@x ","plan":{"name":"Pro"}})")
            << "Ann|Pro plan\na@x";
        QTest::newRow("no plan") << QByteArray(R"({"email":"a@x","plan":3})")
                                 << "a@x|Free plan\na@x";
        QTest::newRow("place markers")
            << QByteArray(R"({"name":"%2","email":"%1","plan":"%2"})") << "%2|%2 plan\n%1";
        QTest::newRow("nothing") << QByteArray("{}") << "|Free plan\n";
    }

    void accountLabelsFollowTheRecord()
    {
        QFETCH(QByteArray, user);
        Q_EMIT api().accountLoaded(QJsonDocument::fromJson(user).object());
        QCOMPARE(stack()->currentIndex(), 1);
        QTEST(shown(), "shown");
    }

    void signOutForgetsTheSessionAndManageAccountOpensItsPage()
    {
        Q_EMIT api().signedIn({}, "tok-1");
        TessivaneTestAccess::settle(api());
        Q_EMIT api().requestFailed("Load chat", "Service down");
        email()->setText("demo@tessivane.dev");
        service_.replies["/api/auth/logout"] = {200, ""};
        press("Sign Out");
        QTRY_COMPARE(stack()->currentIndex(), 0);
        QVERIFY(!store().contains("sessionToken"));
        QCOMPARE(statusLines()[0], "");
        QCOMPARE(email()->text(), "demo@tessivane.dev");
        QCOMPARE(announced(), QStringList({"Signed in.", "Signed out."}));
        press("Manage Account");
        QCOMPARE(opened_, QList<QUrl>{QUrl(TESSIVANE_SERVICE_ORIGIN "/account/")});
    }
};

QTEST_MAIN(TestAccount)
#include "test-account.moc"
