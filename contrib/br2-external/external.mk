include $(sort $(wildcard $(BR2_EXTERNAL_NVRHTTPCURL_PATH)/package/*/*.mk))
