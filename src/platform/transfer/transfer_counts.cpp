// The counts of bytes moved. They are the application's to read; the library itself never asks
// them, and puts them right where gathered writes have run ahead of the host.
#include <qvdbase/qvdbase.h>

uint32_t gbl_realReaden = 0;
uint32_t gbl_realWriten = 0;
