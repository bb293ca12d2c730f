// SPDX-License-Identifier: GPL-2.0-or-later
// Every reply fuzzed: an input answers every request, its first byte sets the scene (see run()),
// and the five docks show the result. For libFuzzer, or a replayer timing the UI thread:
//   fuzz-replies tests/fuzz/corpus
#include "fixture.h"

#include <QAbstractItemView>
#include <QComboBox>
#include <QCryptographicHash>
#include <QDir>
#include <QLineEdit>
#include <QMutex>
#include <QSemaphore>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>
#include <QToolButton>

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace {

// Half the inputs succeed; the others fail as the service and its proxies do.
constexpr int statuses[16] = {200, 200, 200, 200, 200, 200, 200, 200,
                              400, 401, 403, 404, 409, 429, 500, 503};

// Answers every request with the current input in one write, from a thread of its own.
class Responder : public QThread {
public:
    ~Responder() override { quit(), wait(); }
    quint16 listen() { return start(), ready_.acquire(), port_; }
    void answer(int status, const QByteArray &body)
    {
        QMutexLocker lock(&mutex_);
        reply_ = "HTTP/1.1 " + QByteArray::number(status) +
                 " Fuzz\r\nContent-Type: application/json\r\nContent-Length: " +
                 QByteArray::number(body.size()) + "\r\n\r\n" + body;
    }

protected:
    void run() override
    {
        QTcpServer server;
        server.listen(QHostAddress::LocalHost);
        connect(&server, &QTcpServer::pendingConnectionAvailable, &server, [this, &server]() {
            QTcpSocket *socket = server.nextPendingConnection();
            socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket]() { serve(socket); });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        });
        port_ = server.serverPort();
        ready_.release();
        exec();
    }

private:
    void serve(QTcpSocket *socket)
    {
        QByteArray buffer = socket->property("buffer").toByteArray() + socket->readAll();
        for (qsizetype end; (end = buffer.indexOf("\r\n\r\n")) >= 0;) {
            const qsizetype field = buffer.left(end).toLower().indexOf("content-length:");
            const qsizetype length =
                field < 0 ? 0 : buffer.mid(field + 15, 12).trimmed().split('\r')[0].toLongLong();
            if (buffer.size() < end + 4 + length)
                break;
            buffer.remove(0, end + 4 + length);
            QMutexLocker lock(&mutex_);
            socket->write(reply_);
        }
        socket->setProperty("buffer", buffer);
    }

    QSemaphore ready_;
    quint16 port_ = 0;
    QMutex mutex_;
    QByteArray reply_;
};

class Harness : public QObject {
public:
    Harness()
    {
        api_.setBaseUrl(QUrl(QStringLiteral("http://127.0.0.1:%1").arg(responder_.listen())));
        hostDouble::reset();
        QMainWindow *window = hostDouble::mainWindow();
        window->resize(1086, 763); // OBS's own default
        controller_.initialize();
        // Only the inputs drive it: no timer of its own.
        for (QTimer *timer : controller_.findChildren<QTimer *>())
            timer->stop();
        window->show();
        window->activateWindow();
        if (!QTest::qWaitForWindowActive(window))
            qFatal("OBS's window never became active");
        boxes_ = panel("tessivane.stream-information")->findChildren<QComboBox *>();
        // A box is answered with Escape once every reply has landed.
        qApp->installEventFilter(this);
    }

    // The first byte: bits 0-3 the status, 4-5 the focus (none, a category box, the chat's
    // input), 6 a click on the first Remove, open while replies land, 7 signed out.
    void run(const QByteArray &input)
    {
        const int control = input.isEmpty() ? 0 : quint8(input[0]);
        responder_.answer(statuses[control & 15], input.mid(1));
        hostDouble::calls().clear();
        api_.setSessionToken(control & 0x80 ? QString() : QStringLiteral("fuzz"));
        QWidget *focus[] = {nullptr, boxes_[0]->lineEdit(), boxes_[1]->lineEdit(),
                            panel("tessivane.chat")->findChild<QLineEdit *>()};
        if (QWidget *widget = focus[(control >> 4) & 3])
            widget->setFocus();

        // Each endpoint once; the lists come as the follow-ups of the POSTs that change them.
        api_.login("fuzz@tessivane.dev", "fuzz");
        api_.logout();
        api_.fetchAccount();
        api_.fetchIngest();
        controller_.checkForUpdates(false);
        api_.setChannelSelected("1", true);
        api_.startProviderConnection("twitch");
        api_.removeChannel("1");
        api_.addManualLiveDestination("facebook", "n", "s", "k");
        api_.fetchStreamProfile();
        api_.saveStreamProfile({});
        api_.fetchCategories("twitch", "ju");
        api_.fetchCategories("kick", "ju");
        api_.setStreamActive(true);
        api_.sendChatMessage("hi", {}, {});
        for (QToolButton *remove : panel("tessivane.channels")->findChildren<QToolButton *>()) {
            if (control & 0x40 && remove->text() == QStringLiteral("\u00d7")) {
                remove->click();
                break;
            }
        }
        TessivaneTestAccess::drain(api_);
        // The old cards and rows go, and the docks are laid out and painted anew.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
        for (QComboBox *box : std::as_const(boxes_))
            box->hidePopup();
        if (QWidget *widget = QApplication::focusWidget())
            widget->clearFocus();
    }

protected:
    bool eventFilter(QObject *object, QEvent *event) override
    {
        if (event->type() == QEvent::Show && object->inherits("QMessageBox"))
            QMetaObject::invokeMethod(
                object,
                [this, box = static_cast<QWidget *>(object)]() {
                    TessivaneTestAccess::drain(api_);
                    QTest::keyClick(box, Qt::Key_Escape);
                },
                Qt::QueuedConnection);
        return false;
    }

private:
    static QWidget *panel(const char *id) { return hostDouble::dock(id)->widget(); }
    Responder responder_;
    TessivaneController controller_;
    TessivaneApi &api_ = TessivaneTestAccess::api(controller_);
    QList<QComboBox *> boxes_;
};

Harness *harness = nullptr;
double uiMs = 0; // what the last input cost the UI thread

double uiThreadMs()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * 1e3 + now.tv_nsec / 1e6;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    // Offscreen, with settings of its own: an input's session goes nowhere else.
    static QTemporaryDir home;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("XDG_CONFIG_HOME", home.path().toUtf8());
    new QApplication(*argc, *argv);
    harness = new Harness;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray input =
        QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    const double start = uiThreadMs();
    harness->run(input);
    uiMs = uiThreadMs() - start;

    // The slowest inputs are kept, to be timed in the plain build.
    static const QString slowest = qEnvironmentVariable("TESSIVANE_FUZZ_SLOWEST");
    static double kept[8] = {};
    double *least = std::min_element(std::begin(kept), std::end(kept));
    if (!slowest.isEmpty() && uiMs > *least) {
        *least = uiMs;
        QFile file(QDir(slowest).filePath(
            QString::number(uiMs, 'f', 0) + '-' +
            QCryptographicHash::hash(input, QCryptographicHash::Sha1).toHex()));
        if (file.open(QIODevice::WriteOnly))
            file.write(input);
    }
    return 0;
}

#ifdef TESSIVANE_REPLAY
int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    QList<std::pair<double, QString>> times;
    for (int i = 1; i < argc; ++i) {
        const QFileInfo path(QString::fromLocal8Bit(argv[i]));
        const QFileInfoList files =
            path.isDir() ? QDir(path.filePath()).entryInfoList(QDir::Files, QDir::Name)
                         : QFileInfoList{path};
        for (const QFileInfo &info : files) {
            QFile file(info.filePath());
            if (!file.open(QIODevice::ReadOnly))
                qFatal("Cannot read %s", qPrintable(file.fileName()));
            const QByteArray input = file.readAll();
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.constData()),
                                   size_t(input.size()));
            times.append({uiMs, file.fileName()});
        }
    }
    std::printf("%lld inputs replayed; UI thread time of the slowest, and of the references:\n",
                static_cast<long long>(times.size()));
    std::sort(times.begin(), times.end(), std::greater<>());
    for (qsizetype i = 0; i < times.size(); ++i)
        if (i < 10 || times[i].second.contains(QLatin1String("reference")))
            std::printf("%9.2f ms  %s\n", times[i].first, qPrintable(times[i].second));
    // Taken down in order, so that what is left at the end is a leak.
    delete harness;
    delete qApp;
    return 0;
}
#endif
