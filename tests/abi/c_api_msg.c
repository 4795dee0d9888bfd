#include "c_api.h"
#include "velmar_sastox.h"

void check_msg(void)
{
}
