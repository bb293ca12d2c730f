// SPDX-License-Identifier: GPL-2.0-or-later
// The Chat dock: the merged feed of every connected channel, and answering it.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QCborArray>
#include <QCborMap>
#include <QComboBox>
#include <QHBoxLayout>
#include <QIcon>
#include <QJsonDocument>
#include <QLineEdit>
#include <QListWidget>
#include <QPainter>
#include <QPixmap>
#include <QPushButton>
#include <QSet>
#include <QTextDocument>
#include <QVBoxLayout>

#include <cmath>

namespace {

struct ProviderLook {
    QLatin1String provider;
    QLatin1String background;
    QChar glyph;
    Qt::GlobalColor pen;
};

// Facebook, Instagram and anything unknown share the last look.
constexpr ProviderLook providerLooks[] = {
    {QLatin1String("youtube"), QLatin1String("#ff0033"), QChar(0x25B6), Qt::white},
    {QLatin1String("twitch"), QLatin1String("#9146ff"), QChar(u'T'), Qt::white},
    {QLatin1String("kick"), QLatin1String("#53fc18"), QChar(u'K'), Qt::black},
    {QLatin1String(), QLatin1String("#34e6bd"), QChar(u'M'), Qt::white},
};

qsizetype lookIndex(const QString &providerKey)
{
    for (qsizetype i = 0; i + 1 < qsizetype(std::size(providerLooks)); ++i) {
        if (providerKey == providerLooks[i].provider)
            return i;
    }
    return std::size(providerLooks) - 1;
}

QIcon paintBadge(const ProviderLook &look)
{
    QPixmap pixmap(20, 20);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(QBrush(QColor::fromString(look.background), Qt::SolidPattern));
    painter.setPen(Qt::NoPen);
    // The one-pixel margin keeps neighbouring badges apart.
    painter.drawRoundedRect(QRectF(1.0, 1.0, 18.0, 18.0), 4.0, 4.0, Qt::AbsoluteSize);
    painter.setPen(look.pen);
    QFont font = painter.font();
    font.setWeight(QFont::Bold);
    font.setPixelSize(11);
    painter.setFont(font);
    painter.drawText(pixmap.rect(), Qt::AlignCenter, QString(look.glyph));
    painter.end();
    return QIcon(pixmap);
}

// What a reply is compared by: whether it prints as the same compact JSON as the last one, so
// that an idle poll leaves the widgets alone. Printing costs more than parsing, so this decides the
// same without printing where it can. Equal storage (types, bits and code units) prints alike and
// ends an idle poll at the first line. Otherwise elements that differ in storage are printed one
// by one, since some print alike (a NaN and null both print as null); a pair of leaves at the top,
// which no service sends, is left to printing the whole arrays.
bool sameJson(const QJsonArray &last, const QJsonArray &next)
{
    if (QCborArray::fromJsonArray(last) == QCborArray::fromJsonArray(next))
        return true;
    if (last.size() != next.size())
        return false;
    const auto text = [](const auto &json) {
        return QJsonDocument(json).toJson(QJsonDocument::Compact);
    };
    for (qsizetype i = 0; i < last.size(); ++i) {
        const QJsonValue a = last.at(i);
        const QJsonValue b = next.at(i);
        if (a.isObject() && b.isObject()) {
            if (QCborMap::fromJsonObject(a.toObject()) != QCborMap::fromJsonObject(b.toObject()) &&
                text(a.toObject()) != text(b.toObject()))
                return false;
        } else if (a.isArray() && b.isArray()) {
            if (!sameJson(a.toArray(), b.toArray()))
                return false;
        } else if (a.isObject() || a.isArray() || b.isObject() || b.isArray()) {
            return false;
        } else {
            return text(last) == text(next);
        }
    }
    return true;
}

// Services send ids as text or as numbers; a number keeps only its whole part.
QString channelIdText(const QJsonValue &id)
{
    if (id.isString())
        return id.toString().trimmed();
    if (!id.isDouble())
        return QString();
    // The bounds keep the conversion defined for numbers beyond 64 bits.
    const double whole = std::trunc(id.toDouble(0.0));
    return QString::number(
        static_cast<qint64>(qBound(-9223372036854775808.0, whole, 9223372036854774784.0)));
}

// A message's id as text, whichever way the service writes it; none without one.
QString messageId(const QJsonValue &id)
{
    return id.isDouble() ? QString::number(id.toDouble(), 'g', 17) : id.toString();
}

QString field(const QJsonObject &record, QLatin1String key)
{
    return record.value(key).toString();
}

// What a row shows of a record: one line of it.
QString line(const QJsonObject &record, QLatin1String key)
{
    return oneLine(field(record, key));
}

} // namespace

QWidget *TessivaneController::buildChatDock()
{
    QWidget *root = makeRoot();
    QVBoxLayout *layout = rootLayout(root, 10, 8);

    // The feed shrinks, down to a row, so that the send row below stays in view.
    chatList_ = new QListWidget(root);
    chatList_->setAccessibleName(QStringLiteral("Chat messages"));
    chatList_->setMinimumHeight(shortestScroll);
    chatList_->addItem(QStringLiteral("Loading connected platform chats..."));
    layout->addWidget(chatList_, 1);

    auto *sendRow = new QHBoxLayout;
    layout->addLayout(sendRow, 0);
    chatTargetCombo_ = new QComboBox(root);
    // A box is named by its text; what it is for goes into its description.
    chatTargetCombo_->setAccessibleDescription(QStringLiteral("Chat target"));
    chatTargetCombo_->addItem(QStringLiteral("All channels"));
    sendRow->addWidget(chatTargetCombo_, 0);
    chatInputEdit_ = new QLineEdit(root);
    chatInputEdit_->setAccessibleName(QStringLiteral("Chat message"));
    chatInputEdit_->setPlaceholderText(QStringLiteral("Send to the selected live chat"));
    chatInputEdit_->setEnabled(false);
    sendRow->addWidget(chatInputEdit_, 1);
    chatSendButton_ = new QPushButton(QStringLiteral("Send"), root);
    chatSendButton_->setEnabled(false);
    sendRow->addWidget(chatSendButton_, 0);

    connect(chatSendButton_, &QPushButton::clicked, this, [this]() {
        const QString text = chatInputEdit_->text().trimmed();
        if (text.isEmpty())
            return;
        const QString target = chatTargetCombo_->currentData(Qt::UserRole).toString();
        QString channelId;
        QString provider;
        if (target.startsWith(QLatin1String("channel:")))
            channelId = target.mid(8);
        else if (target.startsWith(QLatin1String("provider:")))
            provider = target.mid(9);
        // Neither id means every connected channel.
        api_.sendChatMessage(text, channelId, provider);
    });
    connect(chatInputEdit_, &QLineEdit::returnPressed, chatSendButton_, &QPushButton::click);
    return root;
}

const QIcon &TessivaneController::chatBadge(const QString &providerKey)
{
    static_assert(std::size(providerLooks) == std::extent_v<decltype(chatBadges_)>);
    const qsizetype index = lookIndex(providerKey);
    if (chatBadges_[index].isNull())
        chatBadges_[index] = paintBadge(providerLooks[index]);
    return chatBadges_[index];
}

void TessivaneController::showChat(const QJsonArray &replyMessages, const QJsonArray &replyAdapters)
{
    if (!chatList_ || !chatTargetCombo_)
        return;
    // The newest messages and the first adapters, which is all of them on a real account.
    const QJsonArray messages = partOf(replyMessages, mostChatRows, true);
    const QJsonArray adapters = partOf(replyAdapters, mostChannels);

    const bool messagesChanged =
        !chatMessagesSignature_ || !sameJson(*chatMessagesSignature_, messages);
    if (messagesChanged) {
        // The row the streamer was reading stays the current one, found again by its message's id.
        const QListWidgetItem *reading = chatList_->currentItem();
        const QString readingId = reading ? reading->data(Qt::UserRole).toString() : QString();
        QListWidgetItem *current = nullptr;
        chatList_->clear();
        for (const QJsonValue &value : messages) {
            const QJsonObject message = value.toObject();
            const QString providerUpper = field(message, QLatin1String("provider")).toUpper();
            // One pass, so that a "%1" in a message is shown as typed.
            auto *item =
                new QListWidgetItem(chatBadge(providerUpper.toLower()),
                                    cutText(QStringLiteral("%1 • %2: %3")
                                                .arg(line(message, QLatin1String("channel")),
                                                     line(message, QLatin1String("author")),
                                                     line(message, QLatin1String("text")))));
            // Complete before it joins the list, which then hears of it once. A tool tip that
            // looks like markup would be shown as such.
            const QString tip = cutText(providerUpper);
            item->setToolTip(Qt::mightBeRichText(tip) ? Qt::convertFromPlainText(tip) : tip);
            // The badge speaks to the eye alone: a screen reader hears the platform's name.
            item->setData(Qt::AccessibleDescriptionRole, platformName(providerUpper.toLower()));
            const QString id = messageId(message.value(QLatin1String("id")));
            item->setData(Qt::UserRole, id);
            chatList_->addItem(item);
            if (!readingId.isEmpty() && id == readingId)
                current = item;
        }
        if (current)
            chatList_->setCurrentItem(current);
        chatMessagesSignature_ = messages;
    }

    int connectedCount = 0;
    QStringList statusLines;
    for (const QJsonValue &value : adapters) {
        const QJsonObject adapter = value.toObject();
        if (adapter.value(QLatin1String("connected")).toBool(false))
            ++connectedCount;
        else
            statusLines.append(QStringLiteral("%1: %2").arg(
                line(adapter, QLatin1String("channel")), line(adapter, QLatin1String("detail"))));
    }

    if (!chatAdaptersSignature_ || !sameJson(*chatAdaptersSignature_, adapters)) {
        // The choice is kept by its target, since rows come and go as channels connect.
        const QString chosen = chatTargetCombo_->currentData(Qt::UserRole).toString();
        chatTargetCombo_->setUpdatesEnabled(false);
        chatTargetCombo_->clear();
        chatTargetCombo_->addItem(QStringLiteral("All connected channels"), QStringLiteral("all"));
        QSet<QString> providers;
        for (const QJsonValue &value : adapters) {
            const QJsonObject adapter = value.toObject();
            if (!adapter.value(QLatin1String("connected")).toBool(false))
                continue;
            const QString provider = field(adapter, QLatin1String("provider")).toLower();
            providers.insert(provider);
            chatTargetCombo_->addItem(
                cutText(QStringLiteral("%1 • %2").arg(oneLine(provider.toUpper()),
                                                      line(adapter, QLatin1String("channel")))),
                QStringLiteral("channel:%1")
                    .arg(channelIdText(adapter.value(QLatin1String("channelId")))));
        }
        // Each platform's row goes above the channel rows.
        int index = 1;
        for (const QString &provider : std::as_const(providers))
            chatTargetCombo_->insertItem(
                index++,
                cutText(QStringLiteral("All %1 channels").arg(oneLine(provider.toUpper()))),
                QStringLiteral("provider:%1").arg(provider));
        const int found = chatTargetCombo_->findData(chosen, Qt::UserRole,
                                                     Qt::MatchExactly | Qt::MatchCaseSensitive);
        chatTargetCombo_->setCurrentIndex(found < 0 ? 0 : found);
        chatTargetCombo_->setUpdatesEnabled(true);
        chatAdaptersSignature_ = adapters;
    }

    if (messagesChanged && messages.isEmpty())
        chatList_->addItem(connectedCount > 0
                               ? QStringLiteral("Chat connected. Waiting for viewer messages.")
                               : cutText(statusLines.join(QLatin1Char('\n'))));

    // A control losing its chat never hands the focus on to another action.
    setEnabledKeepingFocus(chatInputEdit_, connectedCount > 0, chatList_);
    setEnabledKeepingFocus(chatSendButton_, connectedCount > 0, chatList_);

    // Only a changed feed moves the view, so a streamer reading older messages keeps the place.
    if (messagesChanged && !messages.isEmpty())
        chatList_->scrollToBottom();
}
