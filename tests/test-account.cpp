// SPDX-License-Identifier: GPL-2.0-or-later
// Signing in and out on the Account dock, the stored session and the account labels.
#include "controller-fixture.h"
#include "tessivane-controller.h"

#include <QDesktopServices>
#include <QJsonDocument>
#include <QMainWindow>
#include <QPushButton>
#include <QStackedWidget>
#include <QTemporaryDir>
#include <QtTest>

using namespace fixture;
using Reply = ScriptedService::Reply;

class TestAccount : public QObject {
    Q_OBJECT

public Q_SLOTS:
    void openUrl(const QUrl &url) { openedUrls_ << url; }

private:
    QTemporaryDir config_;
    ScriptedService *service_ = nullptr;
    TessivaneController *controller_ = nullptr;
    QList<QUrl> openedUrls_;

    QWidget *account() const { return dockWidget("tessivane.account"); }
    QStackedWidget *stack() const { return account()->findChild<QStackedWidget *>(); }
    QLineEdit *email() const { return field(account(), QStringLiteral("Email address")); }
    QLineEdit *password() const { return field(account(), QStringLiteral("Password")); }
    QLabel *status() const { return stack()->widget(0)->findChildren<QLabel *>().last(); }
    QLabel *nameLabel() const
    {
        return account()->findChild<QLabel *>(QStringLiteral("TessivaneValue"));
    }
    QLabel *detailLabel() const
    {
        return stack()->widget(1)->findChildren<QLabel *>(QStringLiteral("TessivaneMuted")).first();
    }
    QPushButton *button(const QString &text) const
    {
        return withText<QPushButton>(account(), text);
    }

    void start()
    {
        controller_ = new TessivaneController;
        QVERIFY(controller_->initialize());
    }

    void signIn()
    {
        service_->setReply("/api/auth/login",
                           Reply::json(200, R"({"sessionToken":"tok-1","user":{"name":"Demo"}})"));
        email()->setText(QStringLiteral("demo@tessivane.dev"));
        password()->setText(QStringLiteral("secret"));
        button(QStringLiteral("Sign In"))->click();
        QTRY_COMPARE(stack()->currentIndex(), 1);
    }

    QList<QByteArray> targetsAfter(int first) const
    {
        QList<QByteArray> targets = service_->targets().mid(first);
        std::sort(targets.begin(), targets.end());
        return targets;
    }

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("XDG_CONFIG_HOME", config_.path().toUtf8());
        ScriptedService::trustTestCa();
        QDesktopServices::setUrlHandler(QStringLiteral("https"), this, "openUrl");
    }

    void init()
    {
        hostDouble::reset();
        store().clear();
        openedUrls_.clear();
        service_ = new ScriptedService(ScriptedService::Transport::Tls, this);
        QVERIFY(service_->listen(originPort()));
    }

    void cleanup()
    {
        delete controller_;
        controller_ = nullptr;
        delete service_;
        service_ = nullptr;
    }

    void signInSendsTheFormAndOpensTheAccountPage()
    {
        start();
        QCOMPARE(stack()->currentIndex(), 0);
        QCOMPARE(nameLabel()->text(), QStringLiteral("Tessivane"));
        QCOMPARE(detailLabel()->text(), QStringLiteral("Free plan"));
        QVERIFY(withText<QLabel>(account(), QStringLiteral("Tessivane OBS Plugin v0.3.3")));
        QTest::qWait(50);
        QVERIFY(service_->requests().isEmpty());

        const QByteArray user = R"({"name":"Demo","email":"demo@tessivane.dev","plan":"Pro"})";
        service_->setReply("/api/auth/login",
                           Reply::json(200, R"({"sessionToken":" tok-1 ","user":)" + user + "}"));
        service_->setReply("/api/me", Reply::json(200, R"({"user":)" + user + "}"));
        QTest::keyClicks(email(), QStringLiteral("  demo@tessivane.dev "));
        QTest::keyClicks(password(), QStringLiteral(" pass word "));
        // Return in the e-mail field does nothing; in the password field it signs in.
        QTest::keyClick(email(), Qt::Key_Return);
        QTest::qWait(50);
        QVERIFY(service_->requests().isEmpty());
        QTest::keyClick(password(), Qt::Key_Return);
        QCOMPARE(status()->text(), QStringLiteral("Signing in..."));
        QVERIFY(button(QStringLiteral("Sign In"))->isEnabled());

        QTRY_COMPARE(stack()->currentIndex(), 1);
        const ScriptedService::Request login = service_->requests().first();
        QCOMPARE(login.method, QByteArray("POST"));
        QCOMPARE(login.target, QByteArray("/api/auth/login"));
        QCOMPARE(login.body,
                 QByteArray(R"({"email":"demo@tessivane.dev","password":" pass word "})"));
        QVERIFY(!login.hasHeader("Authorization"));

        QCOMPARE(nameLabel()->text(), QStringLiteral("Demo"));
        QCOMPARE(detailLabel()->text(), QStringLiteral("Pro plan\ndemo@tessivane.dev"));
        QCOMPARE(password()->text(), QString());
        QCOMPARE(email()->text(), QStringLiteral("  demo@tessivane.dev "));
        // Kept as received; only reading trims it.
        QCOMPARE(store().value(QStringLiteral("sessionToken")).toString(),
                 QStringLiteral(" tok-1 "));

        // The refresh that follows carries the trimmed token.
        QVERIFY(waitForRequests(*service_, 3));
        QCOMPARE(targetsAfter(1), (QList<QByteArray>{"/api/me", "/api/stream-engine/ingest"}));
        for (const ScriptedService::Request &request : service_->requests().mid(1))
            QCOMPARE(request.header("Authorization"), QByteArray("Bearer tok-1"));
    }

    void passwordNeverReachesTheSettingsFile()
    {
        start();
        signIn();
        QFile file(config_.filePath(QStringLiteral("Tessivane/OBS Plugin.conf")));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray contents = file.readAll();
        QVERIFY(contents.contains("tok-1"));
        QVERIFY(!contents.contains("secret"));
        QVERIFY(!contents.contains("demo@tessivane.dev"));
    }

    void failedSignInShowsTheServiceTextAndKeepsTheForm()
    {
        start();
        service_->setReply(
            "/api/auth/login",
            Reply::json(401, R"({"error":"Incorrect e-mail address or password."})"));
        email()->setText(QStringLiteral("demo@tessivane.dev"));
        password()->setText(QStringLiteral("wrong"));
        button(QStringLiteral("Sign In"))->click();
        QTRY_COMPARE(status()->text(),
                     QStringLiteral("Sign in: Incorrect e-mail address or password."));
        QCOMPARE(password()->text(), QStringLiteral("wrong"));
        QCOMPARE(stack()->currentIndex(), 0);
        QVERIFY(!store().contains(QStringLiteral("sessionToken")));

        // A success without a token is a failure of its own.
        service_->setReply("/api/auth/login", Reply::json(200, R"({"user":{"name":"Demo"}})"));
        button(QStringLiteral("Sign In"))->click();
        QTRY_COMPARE(status()->text(),
                     QStringLiteral("Sign in: The account response did not include a session."));
        QCOMPARE(stack()->currentIndex(), 0);
    }

    void restoredSessionAsksForTheAccountTwice()
    {
        store().setValue(QStringLiteral("sessionToken"), QStringLiteral("  tok-9 "));
        service_->setReply("/api/me", Reply::json(200, R"({"user":{"email":"a@b.c"}})"));
        start();
        // The account page waits for the first reply.
        QCOMPARE(stack()->currentIndex(), 0);
        QVERIFY(waitForRequests(*service_, 3));
        QTest::qWait(100);
        QCOMPARE(targetsAfter(0),
                 (QList<QByteArray>{"/api/me", "/api/me", "/api/stream-engine/ingest"}));
        for (const ScriptedService::Request &request : service_->requests())
            QCOMPARE(request.header("Authorization"), QByteArray("Bearer tok-9"));
        QTRY_COMPARE(stack()->currentIndex(), 1);
        QCOMPARE(nameLabel()->text(), QStringLiteral("a@b.c"));
    }

    void blankStoredTokenIsNoSession()
    {
        store().setValue(QStringLiteral("sessionToken"), QStringLiteral("   "));
        start();
        QTest::qWait(100);
        QVERIFY(service_->requests().isEmpty());
        QCOMPARE(stack()->currentIndex(), 0);
    }

    void accountLabelsFollowTheRecord_data()
    {
        QTest::addColumn<QByteArray>("user");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("detail");
        QTest::newRow("plan object")
            << QByteArray(R"({"name":"Ann","email":"a@x","plan":{"name":"Pro"}})") << "Ann"
            << "Pro plan\na@x";
        QTest::newRow("plan string")
            << QByteArray(R"({"name":" Ann ","email":" a@x ","plan":"Pro"})") << "Ann"
            << "Pro plan\na@x";
        QTest::newRow("plan absent") << QByteArray(R"({"name":"Ann","email":"a@x"})") << "Ann"
                                     << "Free plan\na@x";
        QTest::newRow("plan null") << QByteArray(R"({"email":"a@x","plan":null})") << "a@x"
                                   << "Free plan\na@x";
        QTest::newRow("plan number") << QByteArray(R"({"email":"a@x","plan":3})") << "a@x"
                                     << "Free plan\na@x";
        QTest::newRow("plan without name")
            << QByteArray(R"({"email":"a@x","plan":{"id":2}})") << "a@x" << "Free plan\na@x";
        QTest::newRow("percent signs")
            << QByteArray(R"({"name":"%2","email":"%1","plan":"%2"})") << "%2" << "%2 plan\n%1";
        QTest::newRow("blank name and email") << QByteArray(R"({"name":"  ","email":""})") << ""
                                              << "Free plan\n";
        QTest::newRow("empty object") << QByteArray("{}") << "" << "Free plan\n";
    }

    void accountLabelsFollowTheRecord()
    {
        QFETCH(QByteArray, user);
        QFETCH(QString, name);
        QFETCH(QString, detail);
        store().setValue(QStringLiteral("sessionToken"), QStringLiteral("tok"));
        service_->setReply("/api/me", Reply::json(200, R"({"user":)" + user + "}"));
        start();
        QTRY_COMPARE(stack()->currentIndex(), 1);
        QTRY_COMPARE(detailLabel()->text(), detail);
        QCOMPARE(nameLabel()->text(), name);
    }

    void signOutForgetsTheSession()
    {
        start();
        signIn();
        QVERIFY(waitForRequests(*service_, 3));
        service_->clearRequests();
        service_->setReply("/api/auth/logout", Reply::json(200, ""));
        button(QStringLiteral("Sign Out"))->click();
        QTRY_COMPARE(stack()->currentIndex(), 0);
        const ScriptedService::Request logout = service_->requests().first();
        QCOMPARE(logout.target, QByteArray("/api/auth/logout"));
        QCOMPARE(logout.body, QByteArray("{}"));
        QCOMPARE(logout.header("Authorization"), QByteArray("Bearer tok-1"));
        QVERIFY(!store().contains(QStringLiteral("sessionToken")));
        QCOMPARE(status()->text(), QString());
        QCOMPARE(email()->text(), QStringLiteral("demo@tessivane.dev"));

        // Signed out, a second press sends nothing and stays on the sign-in page.
        service_->clearRequests();
        controller_->setSignedInUi(true);
        button(QStringLiteral("Sign Out"))->click();
        QCOMPARE(stack()->currentIndex(), 0);
        QTest::qWait(50);
        QVERIFY(service_->requests().isEmpty());
    }

    void failedSignOutKeepsTheSession()
    {
        start();
        signIn();
        service_->setReply("/api/auth/logout", Reply::json(500, R"({"error":"Try again."})"));
        button(QStringLiteral("Sign Out"))->click();
        QTRY_COMPARE(status()->text(), QStringLiteral("Sign out: Try again."));
        QCOMPARE(stack()->currentIndex(), 1);
        QCOMPARE(store().value(QStringLiteral("sessionToken")).toString(), QStringLiteral("tok-1"));
    }

    void manageAccountOpensTheAccountPage()
    {
        start();
        signIn();
        button(QStringLiteral("Manage Account"))->click();
        QCOMPARE(openedUrls_,
                 QList<QUrl>{QUrl(QStringLiteral(TESSIVANE_SERVICE_ORIGIN "/account/"))});
    }

    void freshSignInReopensClosedDocks()
    {
        start();
        QDockWidget *chat = hostDouble::dock(QStringLiteral("tessivane.chat"));
        chat->close();
        signIn();
        QVERIFY(chat->isVisibleTo(hostDouble::mainWindow()));
    }
};

QTEST_MAIN(TestAccount)
#include "test-account.moc"
