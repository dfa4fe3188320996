/*
 * Sets the system clock from the RTC, as the kernel does at boot, but also
 * past January 2038: a 32-bit kernel refuses that itself, and Debian 12's
 * armhf tools (date, hwclock) have a 32-bit time_t. Built with 64-bit time
 * for the armhf test machine (scripts/lib/armhf-vm-image.sh).
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <linux/rtc.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

int main(void) {
  struct rtc_time rtc;
  int fd = open("/dev/rtc0", O_RDONLY | O_CLOEXEC);
  if (fd < 0 || ioctl(fd, RTC_RD_TIME, &rtc) != 0) {
    perror("armhf-vm-clock: /dev/rtc0");
    return 1;
  }
  close(fd);
  struct tm tm = {.tm_sec = rtc.tm_sec, .tm_min = rtc.tm_min,
                  .tm_hour = rtc.tm_hour, .tm_mday = rtc.tm_mday,
                  .tm_mon = rtc.tm_mon, .tm_year = rtc.tm_year};
  struct timespec now = {.tv_sec = timegm(&tm), .tv_nsec = 0};
  if (clock_settime(CLOCK_REALTIME, &now) != 0) {
    perror("armhf-vm-clock: clock_settime");
    return 1;
  }
  char text[32];
  strftime(text, sizeof text, "%F %T UTC", &tm);
  printf("%s\n", text);
  return 0;
}
