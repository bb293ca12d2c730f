// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QObject>
#include <QString>
#include <QUrl>

#include <functional>

class QNetworkReply;
class QNetworkRequest;

// The one client of the Tessivane HTTPS JSON interface. Every outcome leaves as a signal; the
// client knows nothing of the docks.
class TessivaneApi : public QObject {
    Q_OBJECT

public:
    explicit TessivaneApi(QObject *parent = nullptr);

    void setBaseUrl(const QUrl &url);
    void setSessionToken(const QString &token);
    QString sessionToken() const;
    void abortAll();

    void login(const QString &email, const QString &password);
    void logout();
    void fetchAccount();
    void fetchIngest();
    void fetchLatestPluginRelease();

    void fetchChannels();
    void setChannelSelected(const QString &channelId, bool selected);
    void startProviderConnection(const QString &provider);
    void removeChannel(const QString &channelId);
    void addManualLiveDestination(const QString &provider, const QString &displayName,
                                  const QString &serverUrl, const QString &streamKey);

    void fetchStreamProfile();
    void saveStreamProfile(const QJsonObject &profile);
    void fetchCategories(const QString &provider, const QString &query);
    void fetchLiveStats();
    void setStreamActive(bool active);
    void fetchChatMessages();
    void sendChatMessage(const QString &text, const QString &channelId, const QString &provider);

Q_SIGNALS:
    void signedIn(const QJsonObject &user, const QString &sessionToken);
    void signedOut();
    void accountLoaded(const QJsonObject &user);
    void channelsLoaded(const QJsonArray &channels, const QJsonObject &user);
    void ingestLoaded(const QJsonObject &ingest);
    void pluginReleaseLoaded(const QJsonObject &release);
    void streamProfileLoaded(const QJsonObject &profile);
    void streamProfileSaved(const QJsonObject &profile, const QJsonArray &syncResults);
    void categoriesLoaded(const QString &provider, const QJsonArray &categories);
    void liveStatsLoaded(const QJsonArray &stats);
    void chatLoaded(const QJsonArray &messages, const QJsonArray &adapters);
    void chatMessageSent();
    void providerAuthorizationReady(const QString &provider, const QUrl &url);
    void requestFailed(const QString &operation, const QString &message);

private:
    // The tests reach inside through this; no code of the system does.
    friend struct TessivaneTestAccess;

    using Callback = std::function<void(const QJsonObject &)>;

    QNetworkRequest requestFor(const QString &path) const;
    void get(const QString &path, const QString &operation, Callback callback);
    void post(const QString &path, const QJsonObject &body, const QString &operation,
              Callback callback);
    void handleReply(QNetworkReply *reply, const QString &operation, Callback callback);

    QNetworkAccessManager manager_;
    QUrl baseUrl_;
    QString sessionToken_;
    // A reply that says nothing for this long is given up, so that nothing waits for ever.
    int silenceMs_ = 30000;
};
