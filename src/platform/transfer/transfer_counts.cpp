// The counts of bytes moved. They are for the application to read; the library itself never
// reads them, and corrects them where gathered writes have run ahead of the host.
#include <qvdbase/qvdbase.h>

uint32_t gbl_realReaden = 0;
uint32_t gbl_realWriten = 0;
