// The floor of an update pass over the farm: for each address in turn one conditional GET
// with the validators of the previous pass, and one small state file written atomically
// (temporary file, then rename). Nothing else is kept, parsed or compared.
// With --keep-body the state file also holds the document fetched (a 304 keeps the one before):
// the floor of a reader that stores what it downloads, without reading it.
// With --parse as well, each document fetched also goes through expat with handlers that do
// nothing: the floor of a reader that reads what it stores with expat and keeps nothing of it.
//
// Usage: farmFloor [--keep-body [--parse]] URLS_FILE STATE_DIR
//        (one address a line; one file per feed)

#include <curl/curl.h>
#include <expat.h>

#include <cctype>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>

namespace {

struct Validators {
    std::string etag;
    std::string lastModified;
};

// The previous pass's state file: "etag=" and "last-modified=" lines among others.
Validators readState(const std::string& path) {
    Validators validators;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("etag=", 0) == 0)
            validators.etag = line.substr(5);
        else if (line.rfind("last-modified=", 0) == 0)
            validators.lastModified = line.substr(14);
    }
    return validators;
}

bool writeStateAtomically(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".tmp";
    std::FILE* file = std::fopen(temporary.c_str(), "wb");
    if (!file)
        return false;
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    return std::fclose(file) == 0 && written && std::rename(temporary.c_str(), path.c_str()) == 0;
}

// Keeps the two validators of the response; the header value without its line end.
std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
    auto* validators = static_cast<Validators*>(user);
    const std::string line(data, size * count);
    const std::size_t colon = line.find(':');
    if (colon != std::string::npos) {
        std::string name = line.substr(0, colon);
        for (char& c : name)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        std::string value = line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(' '));
        value.erase(value.find_last_not_of("\r\n") + 1);
        if (name == "etag")
            validators->etag = value;
        else if (name == "last-modified")
            validators->lastModified = value;
    }
    return size * count;
}

struct Body {
    bool keep = false;
    std::size_t bytes = 0;
    std::string text;
};

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto* body = static_cast<Body*>(user);
    body->bytes += size * count;
    if (body->keep)
        body->text.append(data, size * count);
    return size * count;
}

// The document a previous pass kept: everything after the "body=" line.
std::string keptBody(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t at = text.find("\nbody=\n");
    return at == std::string::npos ? std::string() : text.substr(at + 7);
}

void XMLCALL ignoreStart(void*, const XML_Char*, const XML_Char**) {}
void XMLCALL ignoreEnd(void*, const XML_Char*) {}
void XMLCALL ignoreText(void*, const XML_Char*, int) {}

// Expat over the whole document with handlers that do nothing for elements and text (the
// least a reader that collects items asks of it); false when it is not well-formed.
bool parseBare(const std::string& text) {
    XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetElementHandler(parser, &ignoreStart, &ignoreEnd);
    XML_SetCharacterDataHandler(parser, &ignoreText);
    const bool parsed =
        XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) == XML_STATUS_OK;
    XML_ParserFree(parser);
    return parsed;
}

struct Mode {
    bool keepBody = false;
    bool parse = false;
};

// One feed: returns the HTTP status (0 when the transfer failed).
long updateFeed(CURL* curl, const std::string& url, const std::string& statePath, Mode mode) {
    const bool keepBody = mode.keepBody;
    const Validators previous = readState(statePath);
    curl_slist* headers = nullptr;
    if (!previous.etag.empty())
        headers = curl_slist_append(headers, ("If-None-Match: " + previous.etag).c_str());
    if (!previous.lastModified.empty())
        headers =
            curl_slist_append(headers, ("If-Modified-Since: " + previous.lastModified).c_str());
    Validators fresh;
    Body body;
    body.keep = keepBody;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &fresh);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    long status = 0;
    if (curl_easy_perform(curl) == CURLE_OK)
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    if (status == 304) {
        fresh = previous;
        if (keepBody)
            body.text = keptBody(statePath);
    }
    if (mode.parse && status == 200 && !parseBare(body.text))
        std::cerr << "farmFloor: " << url << " is not well-formed\n";
    std::ostringstream state;
    state << "url=" << url << "\netag=" << fresh.etag << "\nlast-modified=" << fresh.lastModified
          << "\nstatus=" << status << "\nbytes=" << body.bytes << "\nfetched=" << std::time(nullptr)
          << '\n';
    if (keepBody)
        state << "body=\n" << body.text;
    if (!writeStateAtomically(statePath, state.str()))
        std::cerr << "farmFloor: can't write " << statePath << '\n';
    return status;
}

} // namespace

int main(int argc, char** argv) {
    Mode mode;
    mode.keepBody = argc >= 4 && std::string(argv[1]) == "--keep-body";
    mode.parse = mode.keepBody && argc == 5 && std::string(argv[2]) == "--parse";
    if (argc != 3 + static_cast<int>(mode.keepBody) + static_cast<int>(mode.parse)) {
        std::cerr << "usage: farmFloor [--keep-body [--parse]] URLS_FILE STATE_DIR\n";
        return 2;
    }
    argv += static_cast<int>(mode.keepBody) + static_cast<int>(mode.parse);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &onHeader);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &onBody);
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
    std::ifstream urls(argv[1]);
    std::string url;
    int feeds = 0, failed = 0;
    while (std::getline(urls, url)) {
        const long status = updateFeed(
            curl, url, std::string(argv[2]) + "/feed" + std::to_string(feeds++) + ".state", mode);
        failed += status != 200 && status != 304;
    }
    curl_easy_cleanup(curl);
    curl_global_cleanup();
    std::cout << feeds << " feeds, " << failed << " failed\n";
    return failed == 0 ? 0 : 1;
}
