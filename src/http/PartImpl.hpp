// The record of a Part, for the scanners and the store that fill it.
#pragma once

#include <vesk/Arena.h>
#include <vesk/Part.h>

struct Part_S {
        char* name;
        char* fileName;
        const char* contentType;
        int isFile;
        char* content;
        int size;
        Arena_T arena;
};
