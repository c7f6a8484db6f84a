// The attribute blob of a stored session: for each attribute, in table order, the
// decimal length of the name, ':', the name, ';', then the same for the value. The
// lengths make ':' and ';' safe inside names and values.
#pragma once

#include <vesk/StringBuffer.h>
#include <vesk/Table.h>

namespace vesk {

// One session attribute; the attribute table is keyed by the pair's own name.
struct SessionAttribute {
        char* name;
        char* value;
};

// The attributes, Str_cmp-keyed to SessionAttribute, as a new blob; NULL for none.
StringBuffer_T encodeSessionAttributes(Table_T attributes);

// Adds the attributes of the size bytes at data, which end in a zero byte at
// data[size], to attributes, cutting the separators to zero bytes in place. Text behind
// the last record that holds no ':' is ignored. A malformed record, or a length that
// reaches past the end, raises AssertException "Illegal format of Session data blob";
// the attributes read until then stay in the table.
void decodeSessionAttributes(char* data, int size, Table_T attributes);

// Frees the attributes in the table and empties it.
void clearSessionAttributes(Table_T attributes);

}  // namespace vesk
