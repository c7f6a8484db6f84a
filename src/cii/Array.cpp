#include <limits.h>
#include <string.h>

#include <vesk/Array.h>
#include <vesk/Mem.h>
#include <vesk/assert.h>

#include "cii/ArrayRep.h"

namespace {

// The elements of a new array; none if the arguments are refused, so that the check in
// ArrayRep_init raises before anything is allocated.
void* elements(int length, int size) {
        return length > 0 && size > 0 ? CALLOC(length, size) : nullptr;
}

}  // namespace

void ArrayRep_init(Array_T array, int length, int size, void* ary) {
        assert(array);
        assert(size > 0);
        // The text of this check is part of the interface: keep its spacing.
        // clang-format off
        assert((ary && length>0) || (length == 0 && ary == NULL));
        // clang-format on
        array->length = length;
        array->size = size;
        array->array = static_cast<char*>(ary);
}

Array_T Array_new(int length, int size) {
        struct Array_S rep;
        ArrayRep_init(&rep, length, size, elements(length, size));
        Array_T array;
        NEW(array);
        *array = rep;
        return array;
}

void Array_free(Array_T* array) {
        assert(array && *array);
        FREE((*array)->array);
        FREE(*array);
}

int Array_length(Array_T array) {
        assert(array);
        return array->length;
}

int Array_size(Array_T array) {
        assert(array);
        return array->size;
}

void* Array_get(Array_T array, int i) {
        assert(array);
        assert(i >= 0 && i < array->length);
        return array->array + static_cast<long>(i) * array->size;
}

void* Array_put(Array_T array, int i, void* elem) {
        assert(array);
        assert(i >= 0 && i < array->length);
        assert(elem);
        memcpy(array->array + static_cast<long>(i) * array->size, elem,
               static_cast<size_t>(array->size));
        return elem;
}

void Array_resize(Array_T array, int length) {
        assert(array);
        assert(length >= 0);
        // The heap takes sizes as int: refuse a length whose bytes would not fit.
        assert(length <= INT_MAX / array->size);
        if (length == 0) {
                FREE(array->array);
        } else if (array->length == 0) {
                array->array = static_cast<char*>(CALLOC(length, array->size));
        } else {
                RESIZE(array->array, length * array->size);
                if (length > array->length)
                        memset(array->array + static_cast<long>(array->length) * array->size, 0,
                               static_cast<size_t>(length - array->length) *
                                   static_cast<size_t>(array->size));
        }
        array->length = length;
}

Array_T Array_copy(Array_T array, int length) {
        assert(array);
        assert(length >= 0);
        Array_T copy = Array_new(length, array->size);
        int n = length < array->length ? length : array->length;
        if (n > 0)
                memcpy(copy->array, array->array,
                       static_cast<size_t>(n) * static_cast<size_t>(array->size));
        return copy;
}
