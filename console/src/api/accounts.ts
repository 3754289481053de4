import { all, get, patch, post, remove, type Page, type Query } from './http'

export interface Account {
  id: number
  username: string
  name: string
  role: 'admin' | 'owner'
  master: number | null
  created: string | null
}

export interface Token {
  id: number
  name: string
  created?: string
  expires: string | null
  token?: string // told once, when it is made
}

export interface Grant {
  id: number
  account: number
  group: number
  role: 'operator' | 'viewer'
}

export interface AuditLine {
  id: number
  at: string
  account: number | null
  address: string
  action: string
  object: string | null
  detail: unknown
}

export const accounts = (): Promise<Account[]> => all('/accounts')
export const addAccount = (account: object): Promise<Account> => post('/accounts', account)
export const changeAccount = (id: number, changes: object): Promise<Account> => patch(`/accounts/${id}`, changes)
export const removeAccount = (id: number): Promise<void> => remove(`/accounts/${id}`)

export const tokens = (): Promise<Token[]> => all('/tokens')
export const addToken = (name: string, expires?: string): Promise<Token> =>
  post('/tokens', expires ? { name, expires } : { name })
export const removeToken = (id: number): Promise<void> => remove(`/tokens/${id}`)

export const grants = (): Promise<Grant[]> => all('/grants')
export const addGrant = (grant: Omit<Grant, 'id'>): Promise<Grant> => post('/grants', grant)
export const removeGrant = (id: number): Promise<void> => remove(`/grants/${id}`)

export const audit = (query: Query): Promise<Page<AuditLine>> => get('/audit', query)
