// SPDX-License-Identifier: GPL-2.0-or-later
// A service in trouble, on request: replies that never come, and replies of garbage, so that a
// client can be tried against both while it runs.
#include "dev-service.h"

#include <QHttpServerRouterRule>

#include <utility>

namespace {

using StatusCode = QHttpServerResponse::StatusCode;

bool onInterface(const QHttpServerRequest &request)
{
    return request.url().path().startsWith(QLatin1StringView("/api/"));
}

// Takes every request to the interface while `active` says so, and no other; as the first rule
// of the router it stands before all the others.
class HoldRule : public QHttpServerRouterRule {
public:
    using QHttpServerRouterRule::QHttpServerRouterRule;
    std::function<bool()> active;

protected:
    bool matches(const QHttpServerRequest &request, QRegularExpressionMatch *) const override
    {
        return active && active() && onInterface(request);
    }
};

// A 200 that claims JSON: an object cut off inside a text that is not even UTF-8, with a NUL.
QHttpServerResponse garbage()
{
    static const char bytes[] = "{\"user\": {\"name\": \"\xff\xfe\0<html><body>Bad gateway";
    return QHttpServerResponse("application/json", QByteArray(bytes, sizeof bytes - 1));
}

} // namespace

void DevService::routeFaults()
{
    HoldRule *hold = http_.route<HoldRule>(
        QStringLiteral("/api/"), Method::AnyKnown, this,
        [this](const QHttpServerRequest &request, QHttpServerResponder &responder) {
            logRequest(request, "held");
            held_.push_back(std::move(responder));
        });
    hold->active = [this] {
        return fault_ == Fault::Stall;
    };

    http_.addAfterRequestHandler(
        this, [this](const QHttpServerRequest &request, QHttpServerResponse &response) {
            if (fault_ == Fault::Garbage && onInterface(request))
                response = garbage();
            if (fault_ == Fault::Redirect && onInterface(request)) {
                response = QHttpServerResponse(StatusCode::TemporaryRedirect);
                QHttpHeaders headers;
                headers.append(QHttpHeaders::WellKnownHeader::Location,
                               redirectTo_.toUtf8() + request.url().path().toUtf8());
                response.setHeaders(std::move(headers));
            }
        });

    handle(QStringLiteral("/dev/fault"), Method::Post, [this](const QHttpServerRequest &request) {
        QJsonObject body;
        readObjectBody(request, &body);
        const QString fault = body.value(QStringLiteral("fault")).toString();
        if (!setFault(fault))
            return errorResponse(QHttpServerResponse::StatusCode::BadRequest,
                                 QStringLiteral("\"fault\" is none, stall, garbage or redirect."));
        redirectTo_ = body.value(QStringLiteral("to")).toString();
        return QHttpServerResponse(QJsonObject{{QStringLiteral("fault"), fault}});
    });
}

bool DevService::setFault(const QString &name)
{
    static const QHash<QString, Fault> faults = {{QStringLiteral("none"), Fault::None},
                                                 {QStringLiteral("stall"), Fault::Stall},
                                                 {QStringLiteral("garbage"), Fault::Garbage},
                                                 {QStringLiteral("redirect"), Fault::Redirect}};
    const auto fault = faults.constFind(name);
    if (fault == faults.constEnd())
        return false;
    fault_ = *fault;
    return true;
}
