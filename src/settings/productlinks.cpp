#include "productlinks.h"

#include "logging.h"

namespace ProductLinks {

namespace {
const char DefaultWebSite[] = "https://www.quorvel.com";
}

QUrl baseUrl(const QString &override)
{
    if (!override.isEmpty()) {
        const QUrl url(override, QUrl::StrictMode);
        const bool http = url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https");
        if (url.isValid() && http && !url.host().isEmpty())
            return url.adjusted(QUrl::StripTrailingSlash);
        Log::warning("Ignoring QV_WEBSITE_URL", override, "which is not an http(s) URL");
    }
    return QUrl(QLatin1String(DefaultWebSite));
}

QUrl webSite()
{
    return baseUrl(qEnvironmentVariable("QV_WEBSITE_URL"));
}

QUrl downloadPage()
{
    QUrl url = webSite();
    url.setPath(url.path() + QStringLiteral("/download"));
    return url;
}

QString linkHtml(const QUrl &url)
{
    QString text = url.toString(QUrl::RemoveScheme);
    if (text.startsWith(QLatin1String("//")))
        text.remove(0, 2);
    return QStringLiteral("<a href='%1'>%2</a>").arg(url.toString(QUrl::FullyEncoded), text);
}

QString downloadLinkHtml()
{
    return linkHtml(downloadPage());
}

} // namespace ProductLinks
