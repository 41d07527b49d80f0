#include "tools/common/http_url.h"

#include <curl/curl.h>
#include <memory>

namespace
{

struct TFreeUrl {
    void operator()(CURLU *ptUrl) const
    {
        curl_url_cleanup(ptUrl);
    }
};

struct TFreeText {
    void operator()(char *szText) const
    {
        curl_free(szText);
    }
};

/* As libcurl reads a URL, one without a scheme too; empty where it does not. */
std::string SchemeOf(const std::string &strUrl)
{
    const std::unique_ptr<CURLU, TFreeUrl> ptUrl(curl_url());
    char *szScheme = nullptr;
    if (!ptUrl || curl_url_set(ptUrl.get(), CURLUPART_URL, strUrl.c_str(),
                               CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS) != CURLUE_OK) {
        return "";
    }
    curl_url_get(ptUrl.get(), CURLUPART_SCHEME, &szScheme, 0);
    const std::unique_ptr<char, TFreeText> ptScheme(szScheme);
    return szScheme != nullptr ? szScheme : "";
}

} // namespace

std::string HttpUrlComplaint(const std::string &strUrl)
{
    const std::string strScheme = SchemeOf(strUrl);
    if (strScheme.empty()) {
        return "\"" + strUrl + "\" is no URL that libcurl can use";
    }
    return strScheme == "http" || strScheme == "https" ? "" : "only http and https are taken, not " + strScheme;
}
