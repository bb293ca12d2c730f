// SPDX-License-Identifier: GPL-2.0-or-later
// The merged live chat of the demo channels.
#include "dev-service.h"

#include <QDateTime>
#include <QJsonArray>

namespace {

using StatusCode = QHttpServerResponse::StatusCode;

// Viewers speak every 1.5 to 4.5 seconds across all live channels: enough to see the feed move
// between two polls, slow enough to read.
constexpr int minGapMs = 1500;
constexpr int maxGapMs = 4500;
constexpr int backlog = 12;
constexpr qsizetype maxChatLength = 500;

const QString connectedStatus = QStringLiteral("Connected");

const char *const viewers[] = {
    "pixelpanda",  "NightOwl_77", "mara.codes", "GrumpyGolem",  "sunny_side",  "Thorvald",
    "lil_latency", "queuebert",   "Aiko",       "frameperfect", "BenchWarmer", "ottoTheOtter",
};

const char *const viewerLines[] = {
    "hi chat!",
    "first time catching the stream live",
    "the audio is so much better today",
    "what settings are you running for this?",
    "LET'S GO",
    "gg",
    "can you show the inventory again?",
    "watching from the train, stream is smooth",
    "that was close",
    "how long have you been streaming today?",
    "lurking, but loving it",
    "bring back the old intro music",
    "is this on all platforms at once?",
    "100% of my attention, 0% of my homework",
    "hello from Lisbon",
    "that jump was clean",
    "clip it!",
    "which mic is that?",
    "chat is moving fast tonight",
    "brb getting snacks",
    "do the thing from last week",
    "stream looks crisp",
    "how is the new setup treating you?",
    "see you all tomorrow",
};

template <typename T, size_t N> const char *pick(T (&list)[N], QRandomGenerator &random)
{
    return list[random.bounded(quint32(N))];
}

// Ids come as numbers or as text; a client names a channel by the text form.
QString idText(const QJsonValue &id)
{
    return id.isString() ? id.toString() : QString::number(id.toInteger());
}

} // namespace

void DevService::routeChat()
{
    chatClock_.start();
    backfillChat(backlog);

    handleSignedIn(
        QStringLiteral("/api/chat/messages"), Method::Get,
        [this](const Account &, const QString &) {
            advanceChat();
            QJsonArray messages;
            for (const QJsonObject &message : std::as_const(chat_))
                messages.append(message);
            // One adapter per channel; only a live channel's chat can be read.
            QJsonArray adapters;
            for (const Channel &channel : std::as_const(channels_)) {
                QJsonObject adapter{
                    {QStringLiteral("provider"), channel.provider},
                    {QStringLiteral("channel"), channel.name},
                    {QStringLiteral("channelId"), channel.id},
                    {QStringLiteral("connected"), channel.status == connectedStatus},
                };
                if (channel.status != connectedStatus)
                    adapter.insert(
                        QStringLiteral("detail"),
                        QStringLiteral("%1 chat opens when the channel is live; it is %2.")
                            .arg(channel.providerName, channel.status.toLower()));
                adapters.append(adapter);
            }
            return QHttpServerResponse(QJsonObject{
                {QStringLiteral("messages"), messages},
                {QStringLiteral("adapters"), adapters},
            });
        });

    // The same as --busy-chat, for a session that is already running.
    handle(QStringLiteral("/dev/busy-chat"), Method::Post, [this](const QHttpServerRequest &) {
        keepChatMessages(busyChatMessages);
        return QHttpServerResponse(QJsonObject{{QStringLiteral("ok"), true}});
    });

    handleSignedInWithBody(QStringLiteral("/api/chat/send"), Method::Post,
                           [this](const Account &account, const QJsonObject &body) {
                               return sendChat(account, body);
                           });
}

void DevService::keepChatMessages(int count)
{
    chatCapacity_ = qMax(count, 1);
    backfillChat(chatCapacity_);
}

// A feed that was going on before anyone looked.
void DevService::backfillChat(int count)
{
    chat_.clear();
    const qint64 now = chatClock_.elapsed();
    for (int i = count; i > 0; --i)
        addViewerMessage(now - qint64(i) * (minGapMs + maxGapMs) / 2);
    nextViewerMessageMs_ = now + minGapMs;
}

// Makes the viewer messages due by now.
void DevService::advanceChat()
{
    const qint64 now = chatClock_.elapsed();
    // After a long quiet spell, what would scroll away at once is never made.
    nextViewerMessageMs_ = qMax(nextViewerMessageMs_, now - qint64(chatCapacity_) * maxGapMs);
    while (nextViewerMessageMs_ <= now) {
        addViewerMessage(nextViewerMessageMs_);
        nextViewerMessageMs_ += minGapMs + chatRandom_.bounded(maxGapMs - minGapMs);
    }
}

void DevService::addViewerMessage(qint64 atMs)
{
    QList<const Channel *> live;
    for (const Channel &channel : std::as_const(channels_)) {
        if (channel.status == connectedStatus)
            live.append(&channel);
    }
    if (live.isEmpty())
        return;
    const Channel &channel = *live.at(chatRandom_.bounded(int(live.size())));
    addChatMessage(channel, QString::fromLatin1(pick(viewers, chatRandom_)),
                   QString::fromLatin1(pick(viewerLines, chatRandom_)), atMs);
}

void DevService::addChatMessage(const Channel &channel, const QString &author, const QString &text,
                                qint64 atMs)
{
    const QDateTime sentAt = QDateTime::currentDateTimeUtc().addMSecs(atMs - chatClock_.elapsed());
    chat_.append(QJsonObject{
        {QStringLiteral("id"), QStringLiteral("msg-%1").arg(++chatSerial_)},
        {QStringLiteral("provider"), channel.provider},
        {QStringLiteral("channelId"), channel.id},
        {QStringLiteral("channel"), channel.name},
        {QStringLiteral("author"), author},
        {QStringLiteral("text"), text},
        {QStringLiteral("sentAt"), sentAt.toString(Qt::ISODateWithMs)},
    });
    if (chat_.size() > chatCapacity_)
        chat_.remove(0, chat_.size() - chatCapacity_);
}

// Posts to one channel, to every live channel of a platform, or to every live channel.
QHttpServerResponse DevService::sendChat(const Account &account, const QJsonObject &body)
{
    const QString text = body.value(QStringLiteral("text")).toString().trimmed();
    if (text.isEmpty())
        return errorResponse(StatusCode::BadRequest, QStringLiteral("Type a message to send."));
    if (text.size() > maxChatLength)
        return errorResponse(
            StatusCode::BadRequest,
            QStringLiteral("A chat message can be at most %1 characters long.").arg(maxChatLength));

    const QJsonValue channelId = body.value(QStringLiteral("channelId"));
    const QString provider = body.value(QStringLiteral("provider")).toString().toLower();
    QList<const Channel *> targets;
    for (const Channel &channel : std::as_const(channels_)) {
        if (channel.status != connectedStatus)
            continue;
        if (channelId.isUndefined() ? provider.isEmpty() || channel.provider == provider
                                    : idText(channel.id) == idText(channelId))
            targets.append(&channel);
    }
    if (targets.isEmpty()) {
        const QString why =
            !channelId.isUndefined() ? QStringLiteral("That channel's chat is not connected.")
            : provider.isEmpty()     ? QStringLiteral("No chat is connected.")
                                     : QStringLiteral("No %1 chat is connected.").arg(provider);
        return errorResponse(StatusCode::Conflict, why);
    }

    // The viewers' messages up to now come first, so that the streamer's is the newest.
    advanceChat();
    for (const Channel *channel : std::as_const(targets))
        addChatMessage(*channel, account.name, text, chatClock_.elapsed());
    return QHttpServerResponse(QJsonObject{
        {QStringLiteral("ok"), true},
        {QStringLiteral("delivered"), int(targets.size())},
    });
}
