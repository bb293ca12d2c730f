// SPDX-License-Identifier: GPL-2.0-or-later
// The stream profile pushed to the selected channels, and category search.
#include "dev-service.h"

#include <QFile>
#include <QJsonArray>
#include <QStringList>
#include <QUrlQuery>

#include <algorithm>
#include <vector>

namespace {

using StatusCode = QHttpServerResponse::StatusCode;

// Enough to choose from while typing, as the platforms' own search boxes offer.
constexpr qsizetype maxCategoryResults = 25;

const QStringList profileTextKeys = {
    QStringLiteral("title"), QStringLiteral("description"), QStringLiteral("notification"),
    QStringLiteral("twitchCategory"), QStringLiteral("kickCategory")};
const QString tagsKey = QStringLiteral("tags");

// Instagram Live offers apps no title or category, so a save always shows one refusal.
const QString refusingProvider = QStringLiteral("instagram");
const QString instagramRefusal =
    QStringLiteral("Instagram Live does not let apps set a title or category.");

// What an account's form holds until its first save.
QJsonObject demoProfile()
{
    return QJsonObject{
        {QStringLiteral("title"), QStringLiteral("Celeste any% practice, then chat picks")},
        {QStringLiteral("description"),
         QStringLiteral(
             "Chill speedrun practice with chat.\nNo spoilers for the B-sides, please.")},
        {QStringLiteral("notification"), QStringLiteral("Demo Streamer is live with Celeste")},
        {QStringLiteral("twitchCategory"), QStringLiteral("Celeste")},
        {QStringLiteral("kickCategory"), QStringLiteral("Just Chatting")},
        {tagsKey, QJsonArray{QStringLiteral("speedrun"), QStringLiteral("chill"),
                             QStringLiteral("English")}},
    };
}

// Empty when `body` is a profile, which lands in `profile` with every key present; otherwise the
// text of a 400.
QString readProfile(const QJsonObject &body, QJsonObject *profile)
{
    for (const QString &key : profileTextKeys) {
        const QJsonValue value = body.value(key);
        if (!value.isUndefined() && !value.isString())
            return QStringLiteral("\"%1\" must be a text.").arg(key);
        profile->insert(key, value.toString());
    }
    const QJsonValue tags = body.value(tagsKey);
    const QJsonArray tagArray = tags.toArray();
    if ((!tags.isUndefined() && !tags.isArray()) ||
        std::any_of(tagArray.begin(), tagArray.end(),
                    [](const QJsonValue &tag) { return !tag.isString(); }))
        return QStringLiteral("\"tags\" must be a list of texts.");
    profile->insert(tagsKey, tagArray);
    return {};
}

// Lower case without accents, so that "pokemon" finds "Pokémon".
QString folded(const QString &text)
{
    QString result;
    const QString decomposed = text.normalized(QString::NormalizationForm_KD);
    for (const QChar c : decomposed) {
        if (c.category() != QChar::Mark_NonSpacing)
            result.append(c.toCaseFolded());
    }
    return result;
}

struct Category {
    QString id;
    QString name;
    QString key; // folded name
};

// A platform's built-in list, one name a line, ids numbered in the list's order.
std::vector<Category> loadCategories(const QString &provider)
{
    QFile file(QStringLiteral(":/categories/%1.txt").arg(provider));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("The built-in %s category list is missing", qPrintable(provider));
    std::vector<Category> categories;
    const QStringList names = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    for (const QString &line : names) {
        const QString name = line.trimmed();
        if (!name.isEmpty())
            categories.push_back({QString::number(categories.size() + 1), name, folded(name)});
    }
    return categories;
}

// 0 when a name starts with the query, 1 when one of its words does, 2 when it holds it
// elsewhere, -1 when it doesn't hold it at all.
int matchRank(const QString &key, const QString &query)
{
    int rank = -1;
    for (qsizetype at = key.indexOf(query); at >= 0; at = key.indexOf(query, at + 1)) {
        if (at == 0)
            return 0;
        if (!key.at(at - 1).isLetterOrNumber())
            return 1;
        rank = 2;
    }
    return rank;
}

QJsonArray searchCategories(const std::vector<Category> &categories, const QString &query)
{
    const QString wanted = folded(query.trimmed());
    if (wanted.isEmpty())
        return {};
    std::vector<std::pair<int, const Category *>> found;
    for (const Category &category : categories) {
        const int rank = matchRank(category.key, wanted);
        if (rank >= 0)
            found.emplace_back(rank, &category);
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    QJsonArray result;
    for (const auto &[rank, category] : found) {
        if (result.size() == maxCategoryResults)
            break;
        result.append(QJsonObject{{QStringLiteral("id"), category->id},
                                  {QStringLiteral("name"), category->name}});
    }
    return result;
}

// The plug-in escapes the "?" of its category query, so that query arrives at the end of the
// decoded path, escaped once more; other clients send an ordinary query.
QUrlQuery categoryQuery(const QUrl &url)
{
    const QString path = url.path(QUrl::FullyDecoded);
    const qsizetype mark = path.indexOf(QLatin1Char('?'));
    return mark < 0 ? QUrlQuery(url) : QUrlQuery(path.mid(mark + 1));
}

} // namespace

void DevService::routeStreamProfile()
{
    // The path serves two methods and handle() one, so the GET takes a route of its own first;
    // every other method goes on to the POST's, which refuses it.
    const QString profilePath = QStringLiteral("/api/stream-profile");
    http_.route(profilePath, Method::Get, this, [this](const QHttpServerRequest &request) {
        return answerSignedIn(request, [this](const Account &account, const QString &) {
            return QHttpServerResponse(QJsonObject{
                {QStringLiteral("profile"), streamProfiles_.value(account.id, demoProfile())},
            });
        });
    });

    // One result per selected channel, as if the profile went out to each platform.
    handle(profilePath, Method::Post, [this](const QHttpServerRequest &request) {
        return answerSignedIn(request, [&](const Account &account, const QString &) {
            QJsonObject body;
            QJsonObject profile;
            QString error = readObjectBody(request, &body);
            if (error.isEmpty())
                error = readProfile(body, &profile);
            if (!error.isEmpty())
                return errorResponse(StatusCode::BadRequest, error);
            streamProfiles_.insert(account.id, profile);
            QJsonArray results;
            for (const Channel &channel : std::as_const(channels_)) {
                if (!channel.selected)
                    continue;
                QJsonObject result{{QStringLiteral("channelId"), channel.id},
                                   {QStringLiteral("provider"), channel.provider},
                                   {QStringLiteral("channel"), channel.name},
                                   {QStringLiteral("ok"), true}};
                if (channel.provider == refusingProvider) {
                    result.insert(QStringLiteral("ok"), false);
                    result.insert(QStringLiteral("error"), instagramRefusal);
                }
                results.append(result);
            }
            return QHttpServerResponse(QJsonObject{{QStringLiteral("profile"), profile},
                                                   {QStringLiteral("syncResults"), results}});
        });
    });

    // The route takes the whole decoded path that begins with "/api/categories", so that the
    // plug-in's escaped query reaches it too.
    QHash<QString, std::vector<Category>> lists;
    for (const QString &provider : {QStringLiteral("twitch"), QStringLiteral("kick")})
        lists.insert(provider, loadCategories(provider));
    handle(QStringLiteral("/api/categories(?:\\?.*)?"), Method::Get,
           [this, lists = std::move(lists)](const QHttpServerRequest &request) {
               return answerSignedIn(request, [&](const Account &, const QString &) {
                   const QUrlQuery query = categoryQuery(request.url());
                   const QString provider =
                       query.queryItemValue(QStringLiteral("provider"), QUrl::FullyDecoded);
                   const auto list = lists.constFind(provider);
                   if (list == lists.cend())
                       return errorResponse(
                           StatusCode::BadRequest,
                           QStringLiteral("Categories can be searched for Twitch and Kick."));
                   return QHttpServerResponse(QJsonObject{
                       {QStringLiteral("categories"),
                        searchCategories(
                            *list, query.queryItemValue(QStringLiteral("q"), QUrl::FullyDecoded))},
                   });
               });
           });
}
