#pragma once

#include <QString>
#include <QUrl>

// Links to the product's web site. The base URL is "https://www.quorvel.com" unless
// QV_WEBSITE_URL names another absolute http(s) URL (for staging sites).
namespace ProductLinks {

QUrl webSite();
QUrl downloadPage();
// "<a href='URL'>TEXT</a>" where TEXT is the URL without its scheme and "//".
QString downloadLinkHtml();

// Resolves a base URL override; an empty or unusable one falls back to the default.
QUrl baseUrl(const QString &override);
QString linkHtml(const QUrl &url);

} // namespace ProductLinks
