#include <vdb/SQLException.h>

const Exception_T SQLException = {"SQLException"};
