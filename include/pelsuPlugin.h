/*
 * The interface of Pelsu library plugins.
 *
 * A library plugin is a shared library named by the "Plugin" key of its ".plugin" file (a
 * name ending in ".so", or ".dll"). It exports one C function, get_plugin_info, which fills
 * a PelsuPluginInfo record with the six entry points below. Every entry point returns 0 for
 * success. On failure it writes a NUL-terminated reason into the error buffer the host passes
 * (PELSU_PLUGIN_ERROR_SIZE bytes, zero-filled) and hands out no buffer.
 *
 * Pages and responses belong to the library: the host copies them (by pointer and length, so
 * they need no terminator and may hold NUL bytes) and then gives each back with plugin_free.
 * A main page that is null or of length 0 is an error and is never given back (a heap buffer
 * returned so is the library's to free); a response may be empty, and a non-null response
 * pointer is always given back, so it must come from the library's allocator.
 * Main pages may use the variables {%APP_SERVER_URL%} and {%APP_PLUGIN_SERVER_URL%};
 * responses to requests may use {%APP_SERVER_URL%} and {%PLUGIN_SERVER_URL%}.
 *
 * generate_main_page and process_request may be called at the same time from two threads.
 */
#ifndef PELSU_PLUGIN_H
#define PELSU_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PELSU_PLUGIN_ERROR_SIZE 1024

typedef struct PelsuPluginInfo {
    int32_t reserved; /* zeroed by the host, never read */
    /* Called once after loading, with the full path of the ".plugin" file. */
    int32_t (*load_plugin)(const char* configFilename, char* errorBuffer);
    /* Called once before the library is released; its result is ignored. */
    int32_t (*unload_plugin)(char* errorBuffer);
    /* The library's allocator; must be present, never called by the host. */
    void* (*plugin_malloc)(size_t size);
    /* Frees a page or response the library returned. */
    void (*plugin_free)(void* buffer);
    /* The plugin's main page. */
    int32_t (*generate_main_page)(char** page, int32_t* length, char* errorBuffer);
    /* The answer to one request: the request's name and its parameter string. */
    int32_t (*process_request)(const char* request, const char* paramString, char** response,
                               int32_t* length, char* errorBuffer);
} PelsuPluginInfo;

/* Exported by the library under this name. */
typedef int32_t (*PelsuGetPluginInfo)(PelsuPluginInfo* info);

#ifdef __cplusplus
}
#endif

#endif /* PELSU_PLUGIN_H */
