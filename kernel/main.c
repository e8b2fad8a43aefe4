// SPDX-License-Identifier: GPL-2.0-only
/*
 * mirelsnap: copy-on-write snapshots of mounted block devices.
 *
 * The module's coming and going, and its control device.  The device has no
 * node of its own: /proc/mirelsnap/dev says its number, and user space makes
 * the node.
 */
#define pr_fmt(fmt) "mirelsnap: " fmt

#include <linux/capability.h>
#include <linux/cdev.h>
#include <linux/fs.h>
#include <linux/module.h>
#include <linux/proc_fs.h>
#include <linux/seq_file.h>
#include "command.h"
#include "cow.h"
#include "freeze.h"
#include "intercept.h"
#include "log.h"
#include "snapdev.h"
#include "state.h"
#include "tracking.h"
#include "version.h"
#include "volumes.h"

unsigned int log_level = 3;	/* errors */

static dev_t control_number;
static struct cdev control;
static struct proc_dir_entry *directory;

static long control_ioctl(struct file *file, unsigned int number, unsigned long argument)
{
	if (!capable(CAP_SYS_ADMIN))
		return -EPERM;
	return serve_command(number, (void __user *)argument);
}

static const struct file_operations control_operations = {
	.owner		= THIS_MODULE,
	.unlocked_ioctl	= control_ioctl,
	.compat_ioctl	= compat_ptr_ioctl,
	.llseek		= noop_llseek,
};

static int show_dev(struct seq_file *file, void *unused)
{
	seq_printf(file, "%u %u\n", MAJOR(control_number), MINOR(control_number));
	return 0;
}

static int make_proc_files(void)
{
	directory = proc_mkdir("mirelsnap", NULL);
	if (!directory)
		return -ENOMEM;
	if (proc_create_single("dev", 0444, directory, show_dev) &&
	    proc_create_single("snapshots", 0444, directory, show_snapshots))
		return 0;
	proc_remove(directory);
	return -ENOMEM;
}

static int make_control_device(void)
{
	int result = alloc_chrdev_region(&control_number, 0, 1, "mirelsnapctl");

	if (result)
		return result;
	cdev_init(&control, &control_operations);
	control.owner = THIS_MODULE;
	result = cdev_add(&control, control_number, 1);
	if (result)
		unregister_chrdev_region(control_number, 1);
	return result;
}

static void remove_control_device(void)
{
	cdev_del(&control);
	unregister_chrdev_region(control_number, 1);
}

static int __init mirelsnap_init(void)
{
	int result = cow_init();

	if (result)
		return result;
	result = freeze_init();
	if (result)
		goto no_freeze;
	result = snapdev_init();
	if (result)
		goto no_snapdev;
	result = intercept_init();
	if (result)
		goto no_intercept;
	result = make_control_device();
	if (result)
		goto no_control;
	result = make_proc_files();
	if (result)
		goto no_files;
	return 0;

no_files:
	remove_control_device();
no_control:
	intercept_exit();
no_intercept:
	snapdev_exit();
no_snapdev:
	freeze_exit();
no_freeze:
	cow_exit();
	return result;
}

/* Nothing is snapped or frozen: each of them holds the module. */
static void __exit mirelsnap_exit(void)
{
	proc_remove(directory);
	remove_control_device();
	intercept_exit();
	snapdev_exit();
	freeze_exit();
	cow_exit();
	tracking_exit();
	volumes_exit();
}

module_init(mirelsnap_init);
module_exit(mirelsnap_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Copy-on-write snapshots of mounted block devices");
MODULE_VERSION(MIRELSNAP_RELEASE);
