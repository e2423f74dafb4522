// Fetching small feeds one after another from a loopback server through readUrl, beside plain
// libcurl doing the same requests with one reused handle.

#include "tools/net.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <httplib.h>

#include <string>
#include <thread>

namespace {

constexpr int kFeeds = 1000;

// One server for the whole run, with 1,000 small feeds.
struct FeedServer {
    httplib::Server server;
    std::thread thread;
    int port = 0;
    std::string feed;
    FeedServer() {
        feed = "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>Small</title>";
        for (int i = 0; i < 5; ++i)
            feed += "<item><title>Item " + std::to_string(i) + "</title><guid>g" +
                    std::to_string(i) + "</guid></item>";
        feed += "</channel></rss>";
        server.set_tcp_nodelay(true);
        server.Get(R"(/feed/(\d+))", [this](const httplib::Request&, httplib::Response& res) {
            res.set_header("ETag", "\"e\"");
            res.set_content(feed, "application/rss+xml");
        });
        port = server.bind_to_any_port("127.0.0.1");
        thread = std::thread([this] { server.listen_after_bind(); });
        while (!server.is_running())
            std::this_thread::yield();
    }
    ~FeedServer() {
        server.stop();
        thread.join();
    }
    std::string url(int i) const {
        return "http://127.0.0.1:" + std::to_string(port) + "/feed/" + std::to_string(i);
    }
};

FeedServer& feedServer() {
    static FeedServer server;
    return server;
}

size_t appendBody(char* data, size_t size, size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

void BM_PlainLibcurlReusedHandle(benchmark::State& state) {
    FeedServer& server = feedServer();
    CURL* handle = curl_easy_init();
    std::string body;
    for (auto _ : state) {
        for (int i = 0; i < kFeeds; ++i) {
            body.clear();
            curl_easy_setopt(handle, CURLOPT_URL, server.url(i).c_str());
            curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &appendBody);
            curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
            curl_easy_perform(handle);
        }
        benchmark::DoNotOptimize(body);
    }
    curl_easy_cleanup(handle);
}
BENCHMARK(BM_PlainLibcurlReusedHandle)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ReadUrl(benchmark::State& state) {
    FeedServer& server = feedServer();
    tools::NetOptions options;
    options.honourUrlPort = true;
    tools::InternetSession session("pelsu-bench", options);
    std::string body, lastModified, etag, statusText;
    long status = 0;
    for (auto _ : state) {
        for (int i = 0; i < kFeeds; ++i) {
            lastModified.clear();
            etag.clear();
            tools::readUrl(session, server.url(i), &lastModified, &etag, false, &status,
                           &statusText, body);
        }
        benchmark::DoNotOptimize(body);
    }
}
BENCHMARK(BM_ReadUrl)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
