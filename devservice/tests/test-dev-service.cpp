// SPDX-License-Identifier: GPL-2.0-or-later
#include "dev-service.h"

#include <QFile>
#include <QJsonArray>
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

struct Exchange {
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    int status = 0;
    QByteArray contentType;
    QByteArray body;
    QJsonObject json;
};

} // namespace

class TestDevService : public QObject {
    Q_OBJECT

private:
    Exchange sendTo(const QString &origin, const QByteArray &verb, const QString &path,
                    const QByteArray &body = {}, const QByteArray &authorization = {});
    Exchange send(const QByteArray &verb, const QString &path, const QByteArray &body = {},
                  const QByteArray &authorization = {})
    {
        return sendTo(service_.origin(), verb, path, body, authorization);
    }
    static QString startExecutable(QProcess &process, const QStringList &arguments);
    static QByteArray bearer(const QString &token) { return "Bearer " + token.toUtf8(); }
    static QByteArray demoCredentials()
    {
        return R"({"email":"demo@tessivane.dev","password":"tessivane-demo"})";
    }

    DevService service_;
    QNetworkAccessManager manager_;
    QSslConfiguration tls_;

private Q_SLOTS:
    void initTestCase();
    void signInOpensSessionThatLogoutRevokes();
    void signInRefusesWrongCredentials();
    void malformedLoginBodiesGetJsonErrors_data();
    void malformedLoginBodiesGetJsonErrors();
    void unknownPathsAndWrongMethodsGetJsonErrors();
    void releaseAndAccountPageNeedNoSession();
    void executableAnnouncesItselfAndEndsOnSigterm();
};

Exchange TestDevService::sendTo(const QString &origin, const QByteArray &verb, const QString &path,
                                const QByteArray &body, const QByteArray &authorization)
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
    exchange.error = reply->error();
    exchange.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    exchange.contentType = reply->header(QNetworkRequest::ContentTypeHeader).toByteArray();
    exchange.body = reply->readAll();
    exchange.json = QJsonDocument::fromJson(exchange.body).object();
    reply->deleteLater();
    return exchange;
}

void TestDevService::initTestCase()
{
    QLoggingCategory::setFilterRules(QStringLiteral("tessivane.devservice.requests=false"));

    // Only the development CA is trusted: a handshake that passes proves the chain and the SAN.
    const QList<QSslCertificate> ca =
        QSslCertificate::fromPath(certDir + QStringLiteral("/dev-ca.pem"));
    QCOMPARE(ca.size(), 1);
    tls_ = QSslConfiguration::defaultConfiguration();
    tls_.setCaCertificates(ca);

    QString error;
    QVERIFY2(service_.listen(0, certDir + QStringLiteral("/server.pem"),
                             certDir + QStringLiteral("/server-key.pem"), &error),
             qPrintable(error));
    QVERIFY(service_.port() != 0);
}

void TestDevService::signInOpensSessionThatLogoutRevokes()
{
    const Exchange login = send("POST", QStringLiteral("/api/auth/login"), demoCredentials());
    QCOMPARE(login.error, QNetworkReply::NoError);
    QCOMPARE(login.status, 200);
    QVERIFY(login.contentType.startsWith("application/json"));
    const QString token = login.json.value(QStringLiteral("sessionToken")).toString();
    QVERIFY(token.size() >= 43);
    const QJsonObject user = login.json.value(QStringLiteral("user")).toObject();
    QCOMPARE(user.value(QStringLiteral("email")).toString(), QStringLiteral("demo@tessivane.dev"));
    QCOMPARE(user.value(QStringLiteral("name")).toString(), QStringLiteral("Demo Streamer"));
    QCOMPARE(user.value(QStringLiteral("plan")).toObject().value(QStringLiteral("name")).toString(),
             QStringLiteral("Creator"));
    QVERIFY(!login.body.contains("tessivane-demo"));

    // The e-mail address is matched without blanks and case; the password is exact.
    const Exchange second =
        send("POST", QStringLiteral("/api/auth/login"),
             R"({"email":"  Demo@Tessivane.DEV ","password":"tessivane-demo"})");
    QCOMPARE(second.status, 200);
    const QString otherToken = second.json.value(QStringLiteral("sessionToken")).toString();
    QVERIFY(!otherToken.isEmpty());
    QVERIFY(otherToken != token);

    const Exchange me = send("GET", QStringLiteral("/api/me"), {}, bearer(token));
    QCOMPARE(me.status, 200);
    QCOMPARE(me.json.value(QStringLiteral("user")).toObject(), user);

    const Exchange ingest =
        send("GET", QStringLiteral("/api/stream-engine/ingest"), {}, bearer(token));
    QCOMPARE(ingest.status, 200);
    QCOMPARE(ingest.json.value(QStringLiteral("server")).toString(),
             QStringLiteral("rtmp://127.0.0.1:1935/live"));
    QVERIFY(!ingest.json.value(QStringLiteral("streamKey")).toString().trimmed().isEmpty());

    const Exchange anonymous = send("GET", QStringLiteral("/api/stream-engine/ingest"));
    QCOMPARE(anonymous.status, 401);
    QCOMPARE(anonymous.json.value(QStringLiteral("error")).toString(),
             QStringLiteral("Sign in to continue."));
    QVERIFY(!anonymous.body.contains("tsv_live"));
    for (const QByteArray &header : {QByteArray("Bearer"), QByteArray("Bearer   "),
                                     QByteArray("Basic ") + token.toUtf8(), token.toUtf8()}) {
        const Exchange bad = send("GET", QStringLiteral("/api/me"), {}, header);
        QVERIFY2(bad.status == 401, header.constData());
        QVERIFY(!bad.json.value(QStringLiteral("error")).toString().isEmpty());
    }

    const Exchange logout = send("POST", QStringLiteral("/api/auth/logout"), "{}", bearer(token));
    QCOMPARE(logout.status, 200);
    QCOMPARE(logout.json.value(QStringLiteral("ok")), QJsonValue(true));

    for (const QString &path :
         {QStringLiteral("/api/me"), QStringLiteral("/api/stream-engine/ingest")}) {
        const Exchange revoked = send("GET", path, {}, bearer(token));
        QCOMPARE(revoked.status, 401);
        QCOMPARE(revoked.json.value(QStringLiteral("error")).toString(),
                 QStringLiteral("Your session has ended. Sign in again."));
    }
    QCOMPARE(send("POST", QStringLiteral("/api/auth/logout"), "{}", bearer(token)).status, 401);
    QCOMPARE(send("GET", QStringLiteral("/api/me"), {}, bearer(otherToken)).status, 200);
}

void TestDevService::signInRefusesWrongCredentials()
{
    for (const QByteArray &body :
         {QByteArray(R"({"email":"demo@tessivane.dev","password":"tessivane-demo "})"),
          QByteArray(R"({"email":"nobody@tessivane.dev","password":"tessivane-demo"})")}) {
        const Exchange refused = send("POST", QStringLiteral("/api/auth/login"), body);
        QVERIFY2(refused.status == 401, body.constData());
        QCOMPARE(refused.json.value(QStringLiteral("error")).toString(),
                 QStringLiteral("Incorrect e-mail address or password."));
        QVERIFY(!refused.json.contains(QStringLiteral("sessionToken")));
    }
}

void TestDevService::malformedLoginBodiesGetJsonErrors_data()
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
    QTest::newRow("no password") << QByteArray(R"({"email":"demo@tessivane.dev"})") << 400
                                 << fields;
    QTest::newRow("number e-mail")
        << QByteArray(R"({"email":42,"password":"tessivane-demo"})") << 400 << fields;
    QTest::newRow("null password")
        << QByteArray(R"({"email":"demo@tessivane.dev","password":null})") << 400 << fields;
    QTest::newRow("blank fields") << QByteArray(R"({"email":"  ","password":""})") << 400 << fields;
    QTest::newRow("huge") << (R"({"email":")" + QByteArray(4 * 1024 * 1024, 'a') +
                              R"(","password":"x"})")
                          << 413 << QStringLiteral("The request body is too large.");
}

void TestDevService::malformedLoginBodiesGetJsonErrors()
{
    QFETCH(QByteArray, body);
    QFETCH(int, status);
    QFETCH(QString, error);

    const Exchange refused = send("POST", QStringLiteral("/api/auth/login"), body);
    QCOMPARE(refused.status, status);
    QVERIFY(refused.contentType.startsWith("application/json"));
    QCOMPARE(refused.json.value(QStringLiteral("error")).toString(), error);

    // Still serving afterwards.
    QCOMPARE(send("POST", QStringLiteral("/api/auth/login"), demoCredentials()).status, 200);
}

void TestDevService::unknownPathsAndWrongMethodsGetJsonErrors()
{
    for (const QString &path :
         {QStringLiteral("/api/nothing"), QStringLiteral("/api/me/"), QStringLiteral("/")}) {
        const Exchange missing = send("GET", path);
        QVERIFY2(missing.status == 404, qPrintable(path));
        QVERIFY(missing.contentType.startsWith("application/json"));
        QVERIFY(missing.json.value(QStringLiteral("error")).toString().contains(path));
    }

    const struct {
        QByteArray verb;
        QString path;
        QString allowed;
    } wrong[] = {
        {"GET", QStringLiteral("/api/auth/login"), QStringLiteral("POST")},
        {"POST", QStringLiteral("/api/me"), QStringLiteral("GET")},
        {"DELETE", QStringLiteral("/api/auth/logout"), QStringLiteral("POST")},
    };
    for (const auto &row : wrong) {
        const Exchange refused = send(row.verb, row.path, "{}");
        QVERIFY2(refused.status == 405, qPrintable(row.path));
        QCOMPARE(refused.json.value(QStringLiteral("error")).toString(),
                 QStringLiteral("%1 accepts only %2 requests.").arg(row.path, row.allowed));
    }
}

void TestDevService::releaseAndAccountPageNeedNoSession()
{
    const Exchange release = send("GET", QStringLiteral("/api/plugin/releases/latest/macos"));
    QCOMPARE(release.status, 200);
    QCOMPARE(release.json.value(QStringLiteral("version")).toString(), QStringLiteral("0.3.3"));
    QCOMPARE(release.json.value(QStringLiteral("available")), QJsonValue(true));

    for (const QString &path : {QStringLiteral("/account"), QStringLiteral("/account/")}) {
        const Exchange page = send("GET", path);
        QCOMPARE(page.status, 200);
        QVERIFY(page.contentType.startsWith("text/html"));
        QVERIFY(page.body.contains("Tessivane development service"));
        QVERIFY(page.body.contains("demo@tessivane.dev"));
    }
}

// Returns the origin that the announcement names, or an empty string.
QString TestDevService::startExecutable(QProcess &process, const QStringList &arguments)
{
    process.start(QStringLiteral(TESSIVANE_DEV_SERVICE_EXE), arguments);
    if (!process.waitForStarted())
        return {};
    while (!process.canReadLine() && process.waitForReadyRead(15000)) {
    }
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral(R"(^Tessivane development service listening on )"
                                          R"((https?://127\.0\.0\.1:[1-9]\d*)\n$)"))
            .match(QString::fromUtf8(process.readLine()));
    return match.captured(1);
}

void TestDevService::executableAnnouncesItselfAndEndsOnSigterm()
{
    QProcess process;
    const QString origin = startExecutable(process, {QStringLiteral("--port"), "0"});
    QVERIFY(origin.startsWith(QStringLiteral("https://")));
    const Exchange release =
        sendTo(origin, "GET", QStringLiteral("/api/plugin/releases/latest/macos"));
    QCOMPARE(release.json.value(QStringLiteral("version")).toString(), QStringLiteral("0.3.3"));

    // A second one on the same port says why and fails.
    QProcess busy;
    busy.start(QStringLiteral(TESSIVANE_DEV_SERVICE_EXE),
               {QStringLiteral("--port"), origin.section(QLatin1Char(':'), -1)});
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
    const QString plainOrigin =
        startExecutable(plain, {QStringLiteral("--plain"), QStringLiteral("--port"), "0"});
    QVERIFY(plainOrigin.startsWith(QStringLiteral("http://")));
    QCOMPARE(sendTo(plainOrigin, "GET", QStringLiteral("/account/")).status, 200);
    plain.terminate();
    QVERIFY(plain.waitForFinished(15000));
    QCOMPARE(plain.exitCode(), 0);
}

QTEST_GUILESS_MAIN(TestDevService)
#include "test-dev-service.moc"
