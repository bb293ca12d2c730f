// SPDX-License-Identifier: GPL-2.0-or-later
// Start, stop and wiring of the controller, and the one reaction to failed requests.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QDesktopServices>
#include <QLabel>
#include <QLineEdit>
#include <QNetworkAccessManager>
#include <QPushButton>
#include <QStackedWidget>
#include <QTimer>

namespace {
constexpr int healthIntervalMs = 2000;
constexpr int pollIntervalMs = 10000;
constexpr int updateIntervalMs = 6 * 60 * 60 * 1000;
constexpr int firstUpdateCheckMs = 10000;
constexpr int secondHealthSampleMs = 1000;

constexpr char accountDock[] = "tessivane.account";
constexpr char channelsDock[] = "tessivane.channels";
constexpr char streamInfoDock[] = "tessivane.stream-information";
constexpr char healthDock[] = "tessivane.stream-health";
constexpr char chatDock[] = "tessivane.chat";

struct DockSpec {
    const char *id;
    const char *title;
    QWidget *(TessivaneController::*build)();
};

const DockSpec dockSpecs[] = {
    {accountDock, "Tessivane Account", &TessivaneController::buildAccountDock},
    {channelsDock, "Tessivane Channels", &TessivaneController::buildChannelsDock},
    {streamInfoDock, "Tessivane Stream Information", &TessivaneController::buildStreamInfoDock},
    {healthDock, "Tessivane Stream Health", &TessivaneController::buildHealthDock},
    {chatDock, "Tessivane Chat", &TessivaneController::buildChatDock},
};
} // namespace

TessivaneController::TessivaneController(QObject *parent)
    : QObject(parent), downloadManager_(new QNetworkAccessManager(this))
{
    api_.setBaseUrl(QUrl(QStringLiteral(TESSIVANE_SERVICE_ORIGIN)));
}

TessivaneController::~TessivaneController()
{
    shutdown();
}

bool TessivaneController::initialize()
{
    if (initialized_)
        return true;
    initialized_ = true;

    for (const DockSpec &spec : dockSpecs) {
        // Each panel is built right before its registration, so a refusal leaves later ones
        // unbuilt.
        if (!registerDock(spec.id, spec.title, (this->*spec.build)())) {
            shutdown();
            return false;
        }
    }
    restoreDockLayout();

    connectApi();

    healthTimer_ = new QTimer(this);
    healthTimer_->setInterval(healthIntervalMs);
    connect(healthTimer_, &QTimer::timeout, this, &TessivaneController::refreshHealth);
    healthTimer_->start();
    healthClock_.start();

    pollTimer_ = new QTimer(this);
    pollTimer_->setInterval(pollIntervalMs);
    connect(pollTimer_, &QTimer::timeout, this, [this]() {
        if (api_.sessionToken().isEmpty())
            return;
        api_.fetchChannels();
        api_.fetchLiveStats();
        api_.fetchChatMessages();
    });
    pollTimer_->start();

    updateTimer_ = new QTimer(this);
    updateTimer_->setInterval(updateIntervalMs);
    connect(updateTimer_, &QTimer::timeout, this, [this]() { checkForUpdates(false); });
    updateTimer_->start();

    // Once, a while after the start; a timer of the controller's, so that it goes with it.
    auto *firstUpdateCheck = new QTimer(this);
    firstUpdateCheck->setSingleShot(true);
    firstUpdateCheck->setTimerType(Qt::CoarseTimer);
    connect(firstUpdateCheck, &QTimer::timeout, this, [this]() { checkForUpdates(false); });
    firstUpdateCheck->start(firstUpdateCheckMs);

    const QString token = loadSession();
    if (!token.isEmpty()) {
        api_.setSessionToken(token);
        // refreshAll asks for the account again; both requests go out on purpose.
        api_.fetchAccount();
        refreshAll();
    } else {
        setSignedInUi(false);
        showDocks();
    }

    refreshHealth();
    QTimer::singleShot(secondHealthSampleMs, this, [this]() { refreshHealth(); });
    return true;
}

void TessivaneController::shutdown()
{
    if (!initialized_)
        return;
    // Cut the client first so that the failures of the aborts below reach no widget.
    QObject::disconnect(&api_, nullptr, this, nullptr);
    api_.abortAll();
    delete healthTimer_;
    healthTimer_ = nullptr;
    delete pollTimer_;
    pollTimer_ = nullptr;
    removeDocks();
    clearWidgetPointers();
    initialized_ = false;
}

void TessivaneController::clearWidgetPointers(const QString &dockId)
{
    // Each dock's own pointers, so that the other docks go on updating when one is gone.
    const auto gone = [&dockId](const char *id) {
        return dockId.isEmpty() || dockId == QLatin1String(id);
    };
    if (gone(accountDock)) {
        accountStack_ = nullptr;
        emailEdit_ = nullptr;
        passwordEdit_ = nullptr;
        accountStatusLabel_ = nullptr;
        accountNameLabel_ = nullptr;
        accountDetailLabel_ = nullptr;
        updateStatusLabel_ = nullptr;
        checkUpdatesButton_ = nullptr;
    }
    if (gone(channelsDock)) {
        channelsContainer_ = nullptr;
        channelsCountLabel_ = nullptr;
        channelsEmptyLabel_ = nullptr;
    }
    if (gone(streamInfoDock)) {
        titleEdit_ = nullptr;
        descriptionEdit_ = nullptr;
        notificationEdit_ = nullptr;
        twitchCategoryCombo_ = nullptr;
        kickCategoryCombo_ = nullptr;
        tagsEdit_ = nullptr;
        streamInfoStatusLabel_ = nullptr;
    }
    if (gone(healthDock)) {
        streamStateLabel_ = nullptr;
        uploadLabel_ = nullptr;
        droppedFramesLabel_ = nullptr;
        optimizationLabel_ = nullptr;
        platformsLabel_ = nullptr;
        startStopButton_ = nullptr;
    }
    if (gone(chatDock)) {
        chatList_ = nullptr;
        chatTargetCombo_ = nullptr;
        chatInputEdit_ = nullptr;
        chatSendButton_ = nullptr;
    }
}

QWidget *TessivaneController::failureSource(const QString &operation) const
{
    // What the streamer asked for, and where: a poll, a refresh at sign-in and a check of the
    // timer's fail on the status lines alone.
    const auto is = [&operation](const char *prefix, const char *suffix = "") {
        return operation.startsWith(QLatin1String(prefix)) &&
               operation.endsWith(QLatin1String(suffix));
    };
    if (is("Sign in") || is("Sign out"))
        return accountStack_;
    if (is("Check for updates"))
        return manualUpdateCheck_ ? updateStatusLabel_ : nullptr;
    if (is("Update channel") || is("Remove channel") || is("Connect ") || is("Add ", " Live"))
        return channelsContainer_;
    if (is("Save stream information"))
        return streamInfoStatusLabel_;
    if (is("Search ", " categories"))
        return searchingBox();
    if (is("Send chat"))
        return chatInputEdit_;
    return nullptr;
}

void TessivaneController::refreshAll()
{
    if (api_.sessionToken().isEmpty())
        return;
    api_.fetchAccount();
    api_.fetchChannels();
    api_.fetchIngest();
    api_.fetchStreamProfile();
    api_.fetchLiveStats();
    api_.fetchChatMessages();
}

void TessivaneController::connectApi()
{
    connect(&api_, &TessivaneApi::signedIn, this,
            [this](const QJsonObject &user, const QString &token) {
                account_ = user;
                ingestConfigured_ = false;
                saveSession(token);
                if (passwordEdit_)
                    passwordEdit_->clear();
                setSignedInUi(true);
                announceSignIn(true);
                refreshAll();
                showDocks();
            });
    connect(&api_, &TessivaneApi::signedOut, this, [this]() {
        clearSession();
        clearObsIngest();
        account_ = QJsonObject();
        channels_ = QJsonArray();
        setSignedInUi(false);
        announceSignIn(false);
        renderChannels(QJsonArray());
    });
    connect(&api_, &TessivaneApi::accountLoaded, this, [this](const QJsonObject &user) {
        account_ = user;
        setSignedInUi(true);
    });
    connect(&api_, &TessivaneApi::channelsLoaded, this,
            [this](const QJsonArray &channels, const QJsonObject &user) {
                channels_ = channels;
                // The labels show a new account only at the next switch of the page.
                if (!user.isEmpty())
                    account_ = user;
                renderChannels(channels_);
                if (platformsLabel_)
                    platformsLabel_->setText(channelSummary());
            });
    connect(&api_, &TessivaneApi::ingestLoaded, this,
            [this](const QJsonObject &ingest) { configureObsIngest(ingest); });
    connect(&api_, &TessivaneApi::pluginReleaseLoaded, this,
            &TessivaneController::handlePluginRelease);
    connect(&api_, &TessivaneApi::streamProfileLoaded, this,
            [this](const QJsonObject &profile) { showStreamProfile(profile); });
    connect(&api_, &TessivaneApi::streamProfileSaved, this,
            [this](const QJsonObject &, const QJsonArray &syncResults) {
                showSyncResults(syncResults);
            });
    connect(&api_, &TessivaneApi::categoriesLoaded, this,
            [this](const QString &provider, const QJsonArray &categories) {
                fillCategories(provider, categories);
            });
    connect(&api_, &TessivaneApi::providerAuthorizationReady, this,
            [](const QString &, const QUrl &url) { QDesktopServices::openUrl(url); });
    connect(&api_, &TessivaneApi::liveStatsLoaded, this,
            [this](const QJsonArray &stats) { showLiveStats(stats); });
    connect(&api_, &TessivaneApi::chatLoaded, this,
            [this](const QJsonArray &messages, const QJsonArray &adapters) {
                showChat(messages, adapters);
            });
    connect(&api_, &TessivaneApi::chatMessageSent, this, [this]() {
        if (chatInputEdit_)
            chatInputEdit_->clear();
        announce(chatInputEdit_, QStringLiteral("Message sent."));
        api_.fetchChatMessages();
    });
    connect(&api_, &TessivaneApi::requestFailed, this,
            [this](const QString &operation, const QString &message) {
                const QString text =
                    shownText(QStringLiteral("%1: %2").arg(operation, oneLine(message)));
                announce(failureSource(operation), text, true);
                if (operation == QLatin1String("Check for updates")) {
                    manualUpdateCheck_ = false;
                    setEnabledKeepingFocus(checkUpdatesButton_, true, updateStatusLabel_);
                    if (updateStatusLabel_)
                        updateStatusLabel_->setText(
                            QStringLiteral("Update check failed. Try again later."));
                }
                if (accountStatusLabel_)
                    accountStatusLabel_->setText(text);
                if (streamInfoStatusLabel_ &&
                    (operation.contains(QLatin1String("stream"), Qt::CaseInsensitive) ||
                     operation.contains(QLatin1String("categor"), Qt::CaseInsensitive)))
                    streamInfoStatusLabel_->setText(text);
            });
}
