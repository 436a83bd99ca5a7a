#include "CHDBlobWriter.h"

CHDBlobWriter::CHDBlobWriter() = default;
CHDBlobWriter::~CHDBlobWriter() = default;
void CHDBlobWriter::start() {}
void CHDBlobWriter::stop() {}
bool CHDBlobWriter::genChdDataBlob() { return true; }
