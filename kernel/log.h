/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * What is told beyond errors: as much as the log level says, a syslog
 * priority that a command sets.
 */
#ifndef MIRELSNAP_LOG_H
#define MIRELSNAP_LOG_H

#include <linux/printk.h>

extern unsigned int log_level;

#define log_at(level, print, ...)				\
	do {							\
		if (READ_ONCE(log_level) >= (level))		\
			print(__VA_ARGS__);			\
	} while (0)

#define log_info(...)	log_at(6, pr_info, __VA_ARGS__)
/* Into the log as information: the kernel leaves out what is for debugging. */
#define log_debug(...)	log_at(7, pr_info, __VA_ARGS__)

#endif /* MIRELSNAP_LOG_H */
