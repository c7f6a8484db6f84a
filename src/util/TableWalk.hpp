// Walking a Table's values with a lambda, for tables whose values are all of one type.
#pragma once

#include <vesk/Table.h>

namespace vesk {

// Calls f(value) for every value of table, as a V, in table order. f may not change the
// table.
template <typename V, typename F>
void eachValue(Table_T table, F f) {
        Table_map(
            table,
            [](const void*, void** value, void* cl) {
                    (*static_cast<F*>(cl))(static_cast<V>(*value));
            },
            &f);
}

}  // namespace vesk
