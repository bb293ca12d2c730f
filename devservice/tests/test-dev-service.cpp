// SPDX-License-Identifier: GPL-2.0-or-later
#include "dev-service.h"

#include <QJsonDocument>
#include <QLoggingCategory>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QtTest>

namespace {

const QString certDir = QStringLiteral(TESSIVANE_DEV_CERT_DIR);
const QByteArray demoCredentials = R"({"email":"demo@tessivane.dev","password":"tessivane-demo"})";

struct Exchange {
    int status = 0;
    QByteArray contentType;
    QByteArray body;
    QJsonObject json;

    QString text(const char *key) const { return json.value(QLatin1String(key)).toString(); }
};

QByteArray bearer(const QString &token)
{
    return "Bearer " + token.toUtf8();
}

// Starts the executable and returns the origin its announcement names, or an empty string.
QString startExecutable(QProcess &process, const QStringList &arguments)
{
    process.start(QStringLiteral(TESSIVANE_DEV_SERVICE_EXE), arguments);
    while (process.waitForStarted() && !process.canReadLine() && process.waitForReadyRead(15000)) {
    }
    static const QRegularExpression announcement(QStringLiteral(
        R"(^Tessivane development service listening on (https?://127\.0\.0\.1:[1-9]\d*)\n$)"));
    return announcement.match(QString::fromUtf8(process.readLine())).captured(1);
}

} // namespace

class TestDevService : public QObject {
    Q_OBJECT

    DevService service_;
    QNetworkAccessManager manager_;
    QSslConfiguration tls_;

    Exchange sendTo(const QString &origin, const QByteArray &verb, const QString &path,
                    const QByteArray &body = {}, const QByteArray &authorization = {})
    {
        QNetworkRequest request(QUrl(origin + path));
        request.setSslConfiguration(tls_);
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        if (!authorization.isEmpty())
            request.setRawHeader("Authorization", authorization);
        QNetworkReply *reply = manager_.sendCustomRequest(request, verb, body);
        QSignalSpy finished(reply, &QNetworkReply::finished);
        if (!reply->isFinished())
            finished.wait(15000);

        Exchange exchange;
        exchange.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        exchange.contentType = reply->header(QNetworkRequest::ContentTypeHeader).toByteArray();
        exchange.body = reply->readAll();
        exchange.json = QJsonDocument::fromJson(exchange.body).object();
        reply->deleteLater();
        return exchange;
    }
    Exchange send(const QByteArray &verb, const QString &path, const QByteArray &body = {},
                  const QByteArray &authorization = {})
    {
        return sendTo(service_.origin(), verb, path, body, authorization);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QLoggingCategory::setFilterRules(QStringLiteral("tessivane.devservice.requests=false"));
        // Only the development CA is trusted: a handshake that passes proves the chain and SAN.
        const QList<QSslCertificate> ca = QSslCertificate::fromPath(certDir + "/dev-ca.pem");
        QCOMPARE(ca.size(), 1);
        tls_ = QSslConfiguration::defaultConfiguration();
        tls_.setCaCertificates(ca);
        QString error;
        QVERIFY2(service_.listen(0, certDir + "/server.pem", certDir + "/server-key.pem", &error),
                 qPrintable(error));
    }

    void signInOpensSessionThatLogoutRevokes()
    {
        const Exchange login = send("POST", "/api/auth/login", demoCredentials);
        QCOMPARE(login.status, 200);
        QVERIFY(login.contentType.startsWith("application/json"));
        const QString token = login.text("sessionToken");
        QVERIFY(token.size() >= 43);
        const QJsonObject user = login.json.value(QStringLiteral("user")).toObject();
        QCOMPARE(user.value(QStringLiteral("email")).toString(), "demo@tessivane.dev");
        QCOMPARE(user.value(QStringLiteral("name")).toString(), "Demo Streamer");
        QCOMPARE(user.value(QStringLiteral("plan"))[QStringLiteral("name")].toString(), "Creator");
        QVERIFY(!login.body.contains("tessivane-demo"));

        // The e-mail address is matched without blanks and case; the password is exact.
        const Exchange second =
            send("POST", "/api/auth/login",
                 R"({"email":"  Demo@Tessivane.DEV ","password":"tessivane-demo"})");
        QCOMPARE(second.status, 200);
        const QString otherToken = second.text("sessionToken");
        QVERIFY(!otherToken.isEmpty() && otherToken != token);

        const Exchange me = send("GET", "/api/me", {}, bearer(token));
        QCOMPARE(me.status, 200);
        QCOMPARE(me.json.value(QStringLiteral("user")).toObject(), user);
        const Exchange ingest = send("GET", "/api/stream-engine/ingest", {}, bearer(token));
        QCOMPARE(ingest.status, 200);
        QCOMPARE(ingest.text("server"), "rtmp://127.0.0.1:1935/live");
        QVERIFY(!ingest.text("streamKey").trimmed().isEmpty());

        const Exchange anonymous = send("GET", "/api/stream-engine/ingest");
        QCOMPARE(anonymous.status, 401);
        QCOMPARE(anonymous.text("error"), "Sign in to continue.");
        QVERIFY(!anonymous.body.contains("tsv_live"));
        for (const QByteArray &header : {QByteArray("Bearer"), QByteArray("Bearer   "),
                                         "Basic " + token.toUtf8(), token.toUtf8()}) {
            const Exchange bad = send("GET", "/api/me", {}, header);
            QVERIFY2(bad.status == 401, header.constData());
            QVERIFY(!bad.text("error").isEmpty());
        }

        const Exchange logout = send("POST", "/api/auth/logout", "{}", bearer(token));
        QCOMPARE(logout.status, 200);
        QCOMPARE(logout.json.value(QStringLiteral("ok")), QJsonValue(true));
        for (const char *path : {"/api/me", "/api/stream-engine/ingest"}) {
            const Exchange revoked = send("GET", path, {}, bearer(token));
            QCOMPARE(revoked.status, 401);
            QCOMPARE(revoked.text("error"), "Your session has ended. Sign in again.");
        }
        QCOMPARE(send("POST", "/api/auth/logout", "{}", bearer(token)).status, 401);
        QCOMPARE(send("GET", "/api/me", {}, bearer(otherToken)).status, 200);
    }

    void signInRefusesWrongCredentials()
    {
        for (const char *body :
             {R"({"email":"demo@tessivane.dev","password":"tessivane-demo "})",
              R"({"email":"nobody@tessivane.dev","password":"tessivane-demo"})"}) {
            const Exchange refused = send("POST", "/api/auth/login", body);
            QVERIFY2(refused.status == 401, body);
            QCOMPARE(refused.text("error"), "Incorrect e-mail address or password.");
            QVERIFY(!refused.json.contains(QStringLiteral("sessionToken")));
        }
    }

    void malformedLoginBodiesGetJsonErrors_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("error");

        const QString notObject = QStringLiteral("The request body must be a JSON object.");
        const QString fields = QStringLiteral("Enter your e-mail address and password.");
        QTest::newRow("empty") << QByteArray() << 400 << notObject;
        QTest::newRow("form encoding")
            << QByteArray("email=demo%40tessivane.dev&password=x") << 400 << notObject;
        QTest::newRow("array") << QByteArray(R"(["demo@tessivane.dev","tessivane-demo"])") << 400
                               << notObject;
        QTest::newRow("no password")
            << QByteArray(R"({"email":"demo@tessivane.dev"})") << 400 << fields;
        QTest::newRow("number e-mail")
            << QByteArray(R"({"email":42,"password":"tessivane-demo"})") << 400 << fields;
        QTest::newRow("null password")
            << QByteArray(R"({"email":"demo@tessivane.dev","password":null})") << 400 << fields;
        QTest::newRow("blank fields")
            << QByteArray(R"({"email":"  ","password":""})") << 400 << fields;
        QTest::newRow("huge") << (R"({"email":")" + QByteArray(4 * 1024 * 1024, 'a') +
                                  R"(","password":"x"})")
                              << 413 << QStringLiteral("The request body is too large.");
    }

    void malformedLoginBodiesGetJsonErrors()
    {
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(QString, error);
        const Exchange refused = send("POST", "/api/auth/login", body);
        QCOMPARE(refused.status, status);
        QVERIFY(refused.contentType.startsWith("application/json"));
        QCOMPARE(refused.text("error"), error);
        // Still serving afterwards.
        QCOMPARE(send("POST", "/api/auth/login", demoCredentials).status, 200);
    }

    void unknownPathsAndWrongMethodsGetJsonErrors()
    {
        for (const QString path : {"/api/nothing", "/api/me/", "/"}) {
            const Exchange missing = send("GET", path);
            QVERIFY2(missing.status == 404, qPrintable(path));
            QVERIFY(missing.contentType.startsWith("application/json"));
            QVERIFY(missing.text("error").contains(path));
        }
        const struct {
            QByteArray verb;
            QString path;
            QString allowed;
        } wrong[] = {{"GET", "/api/auth/login", "POST"},
                     {"POST", "/api/me", "GET"},
                     {"DELETE", "/api/auth/logout", "POST"}};
        for (const auto &row : wrong) {
            const Exchange refused = send(row.verb, row.path, "{}");
            QVERIFY2(refused.status == 405, qPrintable(row.path));
            QCOMPARE(refused.text("error"),
                     QStringLiteral("%1 accepts only %2 requests.").arg(row.path, row.allowed));
        }
    }

    void releaseAndAccountPageNeedNoSession()
    {
        const Exchange release = send("GET", "/api/plugin/releases/latest/macos");
        QCOMPARE(release.status, 200);
        QCOMPARE(release.text("version"), "0.3.3");
        QCOMPARE(release.json.value(QStringLiteral("available")), QJsonValue(true));
        for (const char *path : {"/account", "/account/"}) {
            const Exchange page = send("GET", path);
            QCOMPARE(page.status, 200);
            QVERIFY(page.contentType.startsWith("text/html"));
            QVERIFY(page.body.contains("Tessivane development service"));
            QVERIFY(page.body.contains("demo@tessivane.dev"));
        }
    }

    void executableAnnouncesItselfAndEndsOnSigterm()
    {
        QProcess process;
        const QString origin = startExecutable(process, {"--port", "0"});
        QVERIFY(origin.startsWith("https://"));
        QCOMPARE(sendTo(origin, "GET", "/api/plugin/releases/latest/macos").text("version"),
                 "0.3.3");

        // A second one on the same port says why and fails.
        QProcess busy;
        busy.start(QStringLiteral(TESSIVANE_DEV_SERVICE_EXE),
                   {"--port", origin.section(QLatin1Char(':'), -1)});
        QVERIFY(busy.waitForFinished(15000));
        QVERIFY(busy.exitCode() != 0);
        QVERIFY(busy.readAllStandardOutput().isEmpty());
        QVERIFY(busy.readAllStandardError().contains("cannot listen on 127.0.0.1:"));

        process.terminate();
        QVERIFY(process.waitForFinished(15000));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);
        QVERIFY(process.readAllStandardOutput().isEmpty());

        QProcess plain;
        const QString plainOrigin = startExecutable(plain, {"--plain", "--port", "0"});
        QVERIFY(plainOrigin.startsWith("http://"));
        QCOMPARE(sendTo(plainOrigin, "GET", "/account/").status, 200);
        plain.terminate();
        QVERIFY(plain.waitForFinished(15000));
        QCOMPARE(plain.exitCode(), 0);
    }
};

QTEST_GUILESS_MAIN(TestDevService)
#include "test-dev-service.moc"
