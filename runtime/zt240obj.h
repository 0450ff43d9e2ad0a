#pragma once

/* What the stand-in's two libraries share; nobody else uses it. */

/* Makes the object types of the language known. Non-zero: success. */
__attribute__((visibility("default"))) int bInitObjects(void);
