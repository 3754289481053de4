import { createApp } from 'vue'
import App from './App.vue'
import { router } from './router'
import './state/theme'
import './style.css'

// After an update of the service the parts of the earlier page are gone.
addEventListener('vite:preloadError', () => location.reload())

createApp(App).use(router).mount('#app')
