/* SPDX-License-Identifier: GPL-2.0-only */
#ifndef MIRELSNAP_STATE_H
#define MIRELSNAP_STATE_H

struct seq_file;

/* /proc/mirelsnap/snapshots: a line a snapshot. */
int show_snapshots(struct seq_file *file, void *unused);

#endif /* MIRELSNAP_STATE_H */
