/* A sample library plugin: a main page with a link to one of its requests, and the request
 * "greet" that answers with the parameters it was given. Built against include/pelsuPlugin.h. */
#include "include/pelsuPlugin.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static char g_configFile[1024];

static int32_t loadPlugin(const char* configFilename, char* errorBuffer) {
    if (strlen(configFilename) >= sizeof g_configFile) {
        snprintf(errorBuffer, PELSU_PLUGIN_ERROR_SIZE, "The path is too long: %.900s",
                 configFilename);
        return 1;
    }
    strcpy(g_configFile, configFilename);
    return 0;
}

static int32_t unloadPlugin(char* errorBuffer) {
    (void)errorBuffer;
    return 0;
}

static void* pluginMalloc(size_t size) { return malloc(size); }
static void pluginFree(void* buffer) { free(buffer); }

/* A page made with printf-style arguments, handed over with its length. */
static int32_t makePage(char** out, int32_t* length, char* errorBuffer, const char* format,
                        const char* a, const char* b) {
    const int size = snprintf(NULL, 0, format, a, b);
    char* text = size >= 0 ? malloc((size_t)size + 1) : NULL;
    if (!text) {
        strcpy(errorBuffer, "Out of memory.");
        return 1;
    }
    snprintf(text, (size_t)size + 1, format, a, b);
    *out = text;
    *length = size;
    return 0;
}

static int32_t generateMainPage(char** page, int32_t* length, char* errorBuffer) {
    return makePage(page, length, errorBuffer,
                    "<html><body><h1>Hello</h1><p>Configured by %s.</p>"
                    "<p><a href=\"{%%APP_PLUGIN_SERVER_URL%%}/Hello/greet?%s\">Greet</a></p>"
                    "</body></html>",
                    g_configFile, "who=world");
}

/* The text with the characters that mean something in HTML written as entities: a request
 * comes from any web page, so what it carries must never become mark-up. */
static char* escapeHtml(const char* text) {
    char* out = malloc(strlen(text) * 6 + 1);
    char* end = out;
    if (!out)
        return NULL;
    for (; *text; ++text) {
        const char* entity = *text == '<'    ? "&lt;"
                             : *text == '>'  ? "&gt;"
                             : *text == '&'  ? "&amp;"
                             : *text == '"'  ? "&quot;"
                             : *text == '\'' ? "&#39;"
                                             : NULL;
        if (entity) {
            strcpy(end, entity);
            end += strlen(entity);
        } else {
            *end++ = *text;
        }
    }
    *end = '\0';
    return out;
}

static int32_t processRequest(const char* request, const char* paramString, char** response,
                              int32_t* length, char* errorBuffer) {
    if (strcmp(request, "greet") != 0) {
        strcpy(errorBuffer, "Unknown request.");
        return 1;
    }
    char* params = escapeHtml(paramString);
    if (!params) {
        strcpy(errorBuffer, "Out of memory.");
        return 1;
    }
    const int32_t rc =
        makePage(response, length, errorBuffer,
                 "<html><body><p>Hello! You asked for %s with '%s'.</p>"
                 "<p><a href=\"{%%PLUGIN_SERVER_URL%%}/Hello\">Back</a></p></body></html>",
                 request, params);
    free(params);
    return rc;
}

int32_t get_plugin_info(PelsuPluginInfo* info) {
    info->load_plugin = loadPlugin;
    info->unload_plugin = unloadPlugin;
    info->plugin_malloc = pluginMalloc;
    info->plugin_free = pluginFree;
    info->generate_main_page = generateMainPage;
    info->process_request = processRequest;
    return 0;
}
