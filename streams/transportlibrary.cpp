#include "streams/transportlibrary.h"

#include <QtGlobal>

#include <curl/curl.h>

TransportLibrary::TransportLibrary()
{
    // Without it every transfer fails with its own error text; nothing more to do here.
    const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
    initialized = result == CURLE_OK;
    if (!initialized)
        qWarning("libcurl could not be initialised: %s", curl_easy_strerror(result));
}

TransportLibrary::~TransportLibrary()
{
    if (initialized)
        curl_global_cleanup();
}
