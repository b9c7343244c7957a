#include "loopbackserver.h"

LoopbackServer::~LoopbackServer()
{
    stop();
}

void LoopbackServer::stop()
{
}
