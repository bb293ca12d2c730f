// SPDX-License-Identifier: GPL-2.0-or-later
#include "fixture.h"

#include <QAccessible>
#include <QDesktopServices>
#include <QFile>
#include <QInputDialog>
#include <QListWidget>
#include <QMetaEnum>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslServer>

namespace {
QByteArray readFile(const char *name)
{
    QFile file(QStringLiteral(TESSIVANE_DEV_CERT_DIR "/") + QLatin1String(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
} // namespace

ScriptedService::ScriptedService(QObject *parent) : QObject(parent)
{
    // The clients of the test trust the development CA.
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.addCaCertificates(QSslCertificate::fromData(readFile("dev-ca.pem")));
    QSslConfiguration::setDefaultConfiguration(config);
    http_.setMissingHandler(this, [this](const QHttpServerRequest &request,
                                         QHttpServerResponder &responder) {
        const QByteArray target =
            request.url().toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority);
        const char *method =
            QMetaEnum::fromType<QHttpServerRequest::Method>().valueToKey(int(request.method()));
        requests.append({QByteArray(method).toUpper(), target, request.headers(), request.body()});
        const Reply reply = replies.value(target, fallback);
        if (reply.status == hold)
            return held_.push_back(std::move(responder));
        QHttpHeaders headers;
        headers.append(QHttpHeaders::WellKnownHeader::ContentType, "application/json");
        if (!reply.location.isEmpty())
            headers.append(QHttpHeaders::WellKnownHeader::Location, reply.location);
        const auto status = QHttpServerResponder::StatusCode(reply.status);
        if (!reply.chunked)
            return responder.write(reply.body, headers, status);
        responder.writeBeginChunked(headers, status);
        responder.writeChunk(reply.body);
        responder.writeEndChunked({});
    });
}

bool ScriptedService::listen(quint16 port)
{
    QSslConfiguration tls;
    tls.setLocalCertificateChain(QSslCertificate::fromData(readFile("server.pem")));
    tls.setPrivateKey(QSslKey(readFile("server-key.pem"), QSsl::Ec));
    auto *server = new QSslServer(this);
    server->setSslConfiguration(tls);
    if (!server->listen(QHostAddress::LocalHost, port)) {
        qWarning("Cannot listen on 127.0.0.1:%d: %s", port, qPrintable(server->errorString()));
        return false;
    }
    return http_.bind(server);
}

QUrl ScriptedService::baseUrl() const
{
    return QUrl(QStringLiteral("https://127.0.0.1:%1").arg(http_.serverPorts().value(0)));
}

ControllerTest::ControllerTest()
{
    for (const char *scheme : {"https", "file"})
        QDesktopServices::setUrlHandler(scheme, this, "openUrl");
    // Modal boxes run event loops of their own: a timer of the test's answers them there.
    connect(&modalTimer_, &QTimer::timeout, this, [this]() {
        static QPointer<QWidget> answered;
        auto *dialog = qobject_cast<QDialog *>(QApplication::activeModalWidget());
        if (!dialog || !dialog->isVisible() || dialog == answered)
            return;
        answered = dialog;
        if (auto *box = qobject_cast<QMessageBox *>(dialog))
            // Names and versions come from the service: never read as markup.
            modals_ << box->windowTitle() + '|' + QString(box->text()).remove(QChar(0x200B)) +
                           (box->textFormat() == Qt::PlainText ? "" : "|as markup");
        else if (auto *input = qobject_cast<QInputDialog *>(dialog))
            modals_ << QStringList{input->windowTitle(), input->labelText(),
                                   QString::number(input->textEchoMode()), input->textValue()}
                           .join('|');
        if (answer_)
            answer_(dialog);
        else if (auto *box = qobject_cast<QMessageBox *>(dialog); box && box->defaultButton())
            box->defaultButton()->click();
        else
            dialog->reject();
    });
}

QStringList &ControllerTest::announced()
{
    static QStringList told;
    return told;
}

void ControllerTest::initTestCase()
{
    QAccessible::installUpdateHandler([](QAccessibleEvent *event) {
        if (event->type() != QAccessible::Announcement)
            return;
        const auto *told = static_cast<QAccessibleAnnouncementEvent *>(event);
        const bool assertive = told->politeness() == QAccessible::AnnouncementPoliteness::Assertive;
        announced() << (assertive ? "!" : "") + told->message();
    });
    QVERIFY2(service_.listen(QUrl(TESSIVANE_SERVICE_ORIGIN).port()),
             "The origin's port is taken, perhaps by a running development service");
    modalTimer_.start(5);
}

void ControllerTest::init()
{
    // A warning of Qt's is a fault of ours (a wrong arg(), a widget misused), but for the
    // offscreen platform's about what it cannot do and the network's about a malformed reply.
    QTest::failOnWarning(QRegularExpression(
        "^(?!This plugin does not support|HTTP header value contained illegal)"));
    hostDouble::reset();
    QFile::remove(store().fileName());
    service_.reset();
    modals_.clear();
    answer_ = {};
    opened_.clear();
    QVERIFY(restart());
    announced().clear();
}

void ControllerTest::cleanup()
{
    delete std::exchange(controller_, nullptr);
}

QStringList ControllerTest::wire()
{
    TessivaneTestAccess::settle(api());
    QStringList lines;
    for (const ScriptedService::Request &request : std::as_const(service_.requests))
        lines << request.method + ' ' + request.target + ' ' + request.body;
    lines.sort();
    return lines;
}

QList<QByteArray> ControllerTest::settledTargets()
{
    QList<QByteArray> targets;
    for (const QString &line : wire())
        targets.append(line.section(' ', 1, 1).toUtf8());
    std::sort(targets.begin(), targets.end());
    return targets;
}

bool ControllerTest::docksShown()
{
    const QStringList ids = hostDouble::dockIds();
    return !ids.isEmpty() && std::all_of(ids.begin(), ids.end(), [](const QString &id) {
        return hostDouble::dock(id)->isVisibleTo(hostDouble::mainWindow());
    });
}

QStringList ControllerTest::texts(QWidget *root)
{
    QStringList texts;
    for (QWidget *widget : root->findChildren<QWidget *>())
        if (widget->inherits("QLabel") || widget->inherits("QAbstractButton") ||
            widget->inherits("QLineEdit"))
            texts << widget->property("text").toString();
        else if (auto *list = qobject_cast<QListWidget *>(widget))
            for (int i = 0; i < list->count(); ++i)
                texts << list->item(i)->text();
    return texts;
}
