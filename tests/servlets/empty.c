/* A module that exports no entry point at all. */
int empty_module_marker = 1;
