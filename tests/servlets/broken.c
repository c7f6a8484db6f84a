/* A module with a symbol that nothing defines, so the linker refuses to load it. */
extern int vesk_no_such_symbol_anywhere(void);

int doGet(void* req, void* res) {
        (void)req;
        (void)res;
        return vesk_no_such_symbol_anywhere();
}
