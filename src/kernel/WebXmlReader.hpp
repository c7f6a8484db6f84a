// The reader of an application's deployment descriptor, WEB-INF/web.xml under its docBase.
// What it reads goes to the application's Context (servlet mappings, error pages, security
// constraints, login) and to the tables its ServletContext answers from (MIME types,
// welcome files).
#pragma once

#include <vesk/Arena.h>
#include <vesk/Context.h>
#include <vesk/List.h>
#include <vesk/Loader.h>
#include <vesk/Table.h>

namespace vesk {

// Where the descriptor of one application goes.
struct WebApp {
        Context_T context;
        Loader_T loader;      // loads and finds the application's servlets
        Arena_T arena;        // holds what is read for the application's life
        Table_T mimeTypes;    // extension to MIME type
        List_T welcomeFiles;  // the last read first
};

// Reads the descriptor of app. A Context without a docBase has none to read, and a missing
// file is only warned about. A fault raises its exception again as
// "<reason> in '<file>' at line <n>".
void WebXmlReader_read(const WebApp& app);

}  // namespace vesk
