// The representation of Array_T, shared with Seq, which keeps its elements in an embedded array.
#pragma once

#include <vesk/Array.h>

struct Array_S {
        int length;
        int size;
        char* array;
};

// Fills in an array's fields after checking that they agree: a length above 0 needs elements,
// a length of 0 must have none.
void ArrayRep_init(Array_T array, int length, int size, void* ary);
