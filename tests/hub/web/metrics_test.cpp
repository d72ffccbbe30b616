// soon
