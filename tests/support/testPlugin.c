/* A library plugin for the tests. Environment variables make it misbehave:
 * PELSU_TEST_PLUGIN_MISSING=process_request leaves that entry point out,
 * PELSU_TEST_PLUGIN_FAIL makes load_plugin fail, PELSU_TEST_PLUGIN_EMPTY=static gives a static
 * empty main page and =null a null one. The request "empty" is answered with an empty heap
 * buffer, which plugin_free reports when it gets it back. Handing a static string back to plugin_free ends the process, as the C library's
 * free would. */
#include "include/pelsuPlugin.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int32_t loadPlugin(const char* configFilename, char* errorBuffer) {
    (void)configFilename;
    if (getenv("PELSU_TEST_PLUGIN_FAIL")) {
        strcpy(errorBuffer, "no licence");
        return 1;
    }
    const int32_t words[3] = {11, 22, 33};
    memcpy(errorBuffer, words, sizeof words);
    return 0;
}

static int32_t unloadPlugin(char* errorBuffer) {
    (void)errorBuffer;
    return 0;
}

static const char kStaticEmpty[] = "";

static char* emptyResponse = NULL;

static void* pluginMalloc(size_t size) { return malloc(size); }
static void pluginFree(void* buffer) {
    if (buffer == kStaticEmpty) {
        fputs("plugin_free: not a buffer of this library\n", stderr);
        abort();
    }
    if (buffer != NULL && buffer == emptyResponse)
        fputs("empty response given back; ", stderr);
    free(buffer);
}

static int32_t generateMainPage(char** page, int32_t* length, char* errorBuffer) {
    (void)errorBuffer;
    const char* empty = getenv("PELSU_TEST_PLUGIN_EMPTY");
    if (empty) {
        *page = strcmp(empty, "null") == 0 ? NULL : (char*)kStaticEmpty;
        *length = 0;
        return 0;
    }
    const char* text = "<a href=\"{%APP_PLUGIN_SERVER_URL%}/x\">main</a>";
    *page = malloc(strlen(text) + 1);
    strcpy(*page, text);
    *length = (int32_t)strlen(text);
    return 0;
}

static int32_t processRequest(const char* request, const char* paramString, char** response,
                              int32_t* length, char* errorBuffer) {
    if (strcmp(request, "fail") == 0) {
        strcpy(errorBuffer, "the request failed");
        return 2;
    }
    if (strcmp(request, "empty") == 0) {
        emptyResponse = malloc(1);
        *response = emptyResponse;
        *length = 0;
        return 0;
    }
    char* text = malloc(512);
    snprintf(text, 512, "%s|%s|{%%PLUGIN_SERVER_URL%%}|{%%APP_PLUGIN_SERVER_URL%%}", request,
             paramString);
    *response = text;
    *length = (int32_t)strlen(text);
    return 0;
}

int32_t get_plugin_info(PelsuPluginInfo* info) {
    const char* missing = getenv("PELSU_TEST_PLUGIN_MISSING");
    info->load_plugin = loadPlugin;
    info->unload_plugin = unloadPlugin;
    info->plugin_malloc = pluginMalloc;
    info->plugin_free = pluginFree;
    info->generate_main_page = generateMainPage;
    info->process_request =
        missing && strcmp(missing, "process_request") == 0 ? NULL : processRequest;
    return 0;
}
