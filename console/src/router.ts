/** The pages: where each lies in the address, and the path of the service without which it is not shown. */
import { createRouter, createWebHashHistory, type RouteRecordRaw } from 'vue-router'
import OverviewPage from './pages/OverviewPage.vue'
import type { Texts } from './text/en'

declare module 'vue-router' {
  interface RouteMeta {
    name: keyof Texts['nav']
    needs: string | null // a path of the service
    inMenu: boolean
    plays?: boolean // only for accounts that may play to some speaker
    admin?: boolean
  }
}

const page = (path: string, name: keyof Texts['nav'], needs: string | null, component: RouteRecordRaw['component'], more: object = {}): RouteRecordRaw =>
  ({ path, component, meta: { name, needs, inMenu: true, ...more } }) as RouteRecordRaw

export const routes: RouteRecordRaw[] = [
  page('/', 'overview', null, OverviewPage),
  page('/announce', 'announce', '/broadcasts/{id}/stop', () => import('./pages/AnnouncePage.vue'), { plays: true }),
  page('/speakers', 'speakers', '/speakers', () => import('./pages/SpeakersPage.vue')),
  page('/speakers/:serial', 'speaker', '/speakers/{serial}', () => import('./pages/SpeakerPage.vue'), { inMenu: false }),
  page('/groups/:id?', 'groups', '/groups', () => import('./pages/GroupsPage.vue')),
  page('/broadcasts/:id', 'broadcast', '/broadcasts/{id}', () => import('./pages/BroadcastPage.vue'), { inMenu: false }),
  page('/schedule/:part?', 'schedule', '/schedules', () => import('./pages/SchedulePage.vue')),
  page('/sounds', 'sounds', '/sounds', () => import('./pages/SoundsPage.vue')),
  page('/journal', 'journal', '/journal', () => import('./pages/JournalPage.vue')),
  page('/accounts/:part?', 'accounts', '/me', () => import('./pages/AccountsPage.vue')),
  page('/system', 'system', '/system', () => import('./pages/SystemPage.vue')),
]

export const router = createRouter({
  history: createWebHashHistory(),
  routes: [...routes, { path: '/:rest(.*)', redirect: '/' }],
})
