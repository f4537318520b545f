/* The platform's lens-mask library, as far as the motor daemon sees it: one shared switch, 1 while the mask is on. */
extern int g_lens_mask_enabled;
int g_lens_mask_enabled;
