#pragma once

/* The interface between the stand-in's two libraries; nobody else uses it. */

/* Registers the object types of the language. Returns non-zero on success. */
__attribute__((visibility("default"))) int bInitObjects(void);
