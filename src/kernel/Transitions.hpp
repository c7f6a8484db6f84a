// The state machines of the configuration readers as tables: in a state, a tag of the
// element named (in any case) runs a handler and leads to the next state.
#pragma once

#include <stddef.h>

#include <vesk/Str.h>

namespace vesk {

template <typename State, typename Handler>
struct Transition {
        State state;
        const char* element;
        Handler handler;  // nullptr: only the state changes
        State next;
};

// The transition of table for element in state, or nullptr.
template <typename State, typename Handler, size_t N>
const Transition<State, Handler>* Transition_find(const Transition<State, Handler> (&table)[N],
                                                  State state, const char* element) {
        for (const Transition<State, Handler>& t : table)
                if (t.state == state && Str_isEqual(element, t.element))
                        return &t;
        return nullptr;
}

// Takes the transition of table for element in state, if there is one: runs its handler
// with args, then moves state on. False if the table has none.
template <typename State, typename Handler, size_t N, typename... Args>
bool Transition_take(const Transition<State, Handler> (&table)[N], State& state,
                     const char* element, Args... args) {
        const Transition<State, Handler>* t = Transition_find(table, state, element);
        if (!t)
                return false;
        if (t->handler)
                t->handler(args...);
        state = t->next;
        return true;
}

}  // namespace vesk
