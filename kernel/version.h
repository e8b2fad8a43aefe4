/* SPDX-License-Identifier: GPL-2.0-only */
#ifndef MIRELSNAP_VERSION_H
#define MIRELSNAP_VERSION_H

#define MIRELSNAP_RELEASE	"1.0.0"			/* the project's */
#define MIRELSNAP_VERSION	"mirelsnap " MIRELSNAP_RELEASE	/* what a command answers */

#endif /* MIRELSNAP_VERSION_H */
